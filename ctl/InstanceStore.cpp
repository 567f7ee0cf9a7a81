#include "ctl/InstanceStore.h"

#include "common/TmpFile.h"
#include "ctl/Digest.h"
#include "ctl/ListWriter.h"
#include "ctl/Trouble.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <set>

namespace tarvik::ctl {

namespace {

const char* const kDirectories[] = {"/var/lib/zendrel", "/var/lib/zendrel/instances"};
constexpr char kStore[] = "/var/lib/zendrel/instances/";
constexpr char kRecordEnd[] = ".json";
constexpr char kListEnd[] = ".xml";
constexpr char kFilesEnd[] = ".files";
constexpr std::size_t kIdLength = 16;
constexpr char kLockEnd[] = ".lock";
constexpr char kStoreLock[] = ".lock";  // no instance's name begins with "."
constexpr std::size_t kLongestName = 200;
constexpr int kMillisecondsBetweenTries = 20;

[[noreturn]] void throw_failed(const std::string& what, const std::string& path)
{
    throw Trouble(what + " " + path + ": " + std::strerror(errno));
}

void require_name(const std::string& name)
{
    const bool plain = std::all_of(name.begin(), name.end(), [](unsigned char byte) {
        return (std::isalnum(byte) != 0 && byte < 0x80) || byte == '.' || byte == '-'
            || byte == '_';
    });
    if (name.empty() || name.front() == '.' || name.size() > kLongestName || !plain)
        throw Trouble("an instance cannot be called \"" + name
                      + "\": letters, digits, \".\", \"-\" and \"_\" make a name");
}

std::string path_of(const std::string& name, const char* end)
{
    return kStore + name + end;
}

void provide_store()
{
    for (const char* const directory : kDirectories) {
        if (::mkdir(directory, 0700) != 0 && errno != EEXIST)
            throw_failed("cannot create", directory);
    }
}

/// Takes a lock, waiting for it until then. @return none when another process holds it.
TDescriptor take_lock(const std::string& path, std::chrono::seconds patience)
{
    const auto end = std::chrono::steady_clock::now() + patience;
    for (;;) {
        TDescriptor file(::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!file)
            throw_failed("cannot open", path);
        if (::flock(file.get(), LOCK_EX | LOCK_NB) == 0) {
            struct stat locked;
            struct stat named;
            if (::fstat(file.get(), &locked) == 0 && ::stat(path.c_str(), &named) == 0
                && locked.st_ino == named.st_ino)
                return file;
            continue;  // whoever held it has removed it meanwhile
        }
        if (std::chrono::steady_clock::now() >= end)
            return TDescriptor();
        static_cast<void>(::poll(nullptr, 0, kMillisecondsBetweenTries));
    }
}

std::string read_or_throw(const std::string& path)
try {
    return readFile(path);
} catch (const std::exception& e) {
    throw Trouble(e.what());
}

void sync(const std::string& path)
{
    const TDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file || ::fsync(file.get()) != 0)
        throw_failed("cannot write", path);
}

/// Replaces a file at a stroke. It is on the disk when this returns.
void replace(const std::string& path, const std::string& text)
try {
    const std::string prefix = path + ".";
    remove_stray_files(prefix);
    TmpFile file(prefix, true);
    file << text << std::flush;
    if (!file || !file.close())
        throw_failed("cannot write", path);
    sync(file.name());
    if (::rename(file.name().c_str(), path.c_str()) != 0)
        throw_failed("cannot write", path);
    sync(kStore);
} catch (const Trouble&) {
    throw;
} catch (const std::exception& e) {
    throw Trouble(e.what());
}

bool is_record(const std::string& name)
{
    const std::size_t end = sizeof kRecordEnd - 1;
    return name.size() > end && name.front() != '.'
        && name.compare(name.size() - end, end, kRecordEnd) == 0;
}

bool is_there(const std::string& path)
{
    struct stat status;
    return ::lstat(path.c_str(), &status) == 0;
}

std::string files_path(const std::string& name, const std::string& id)
{
    return path_of(name, ".") + id + kFilesEnd;
}

/// Stores the files under what they are: written once, and only read from then on.
void store_files(const std::string& name, Release& release)
{
    if (!release.filesId.empty())
        return;
    const std::string text = files_text(release.files);
    release.filesId = sha256_of(text).substr(0, kIdLength);
    const std::string path = files_path(name, release.filesId);
    if (!is_there(path))
        replace(path, text);
}

/// The releases of a record, each of which has files.
template <class Record>
auto releases(Record& record)
{
    std::vector<decltype(&record.current)> all = {&record.current};
    for (auto& kept : record.kept)
        all.push_back(&kept.release);
    if (record.exchange && record.exchange->incoming)  // else it is still being made
        all.push_back(&record.exchange->release);
    return all;
}

/// Removes the files of releases that are no more. What cannot be removed is only in nobody's way.
void remove_files(const std::string& name, const std::set<std::string>& used)
{
    const DirectoryStream store(::opendir(kStore));
    const std::size_t length = name.size() + 1 + kIdLength + sizeof kFilesEnd - 1;
    while (const dirent* const entry = store ? ::readdir(store.get()) : nullptr) {
        const std::string file = entry->d_name;
        const std::string id = file.size() == length ? file.substr(name.size() + 1, kIdLength) : "";
        if (!id.empty() && kStore + file == files_path(name, id) && used.count(id) == 0)
            static_cast<void>(::unlinkat(::dirfd(store.get()), file.c_str(), 0));
    }
}

void save_list(InstanceRecord& record)
{
    if (record.listId == record.current.filesId)
        return;
    load_files(record.name, record.current);
    std::vector<std::string> paths;
    for (const RecordedFile& file : record.current.files)
        paths.push_back(file.path);
    replace(list_path(record.name), instance_list(paths));
    record.listId = record.current.filesId;
}

}  // namespace

InstanceLock::InstanceLock(const std::string& name, const std::string& command, unsigned seconds)
{
    require_name(name);
    provide_store();
    path_ = path_of(name, kLockEnd);
    file_ = take_lock(path_, std::chrono::seconds(seconds));
    if (!file_)
        throw Trouble("instance " + name + " is in use by process " + read_or_throw(path_));
    const std::string holder = std::to_string(::getpid()) + " (" + command + ")";
    if (::ftruncate(file_.get(), 0) != 0
        || ::pwrite(file_.get(), holder.data(), holder.size(), 0) < 0)
        throw_failed("cannot write", path_);
}

InstanceLock::~InstanceLock()
{
    static_cast<void>(::unlink(path_.c_str()));
}

std::vector<InstanceRecord> all_instances()
{
    const DirectoryStream store(::opendir(kStore));
    if (!store && errno == ENOENT)
        return {};
    if (!store)
        throw_failed("cannot read", kStore);
    std::vector<InstanceRecord> records;
    while (const dirent* const entry = ::readdir(store.get())) {
        if (is_record(entry->d_name))
            records.push_back(record_from(read_or_throw(kStore + std::string(entry->d_name))));
    }
    std::sort(records.begin(), records.end(),
              [](const auto& a, const auto& b) { return a.name < b.name; });
    return records;
}

std::optional<InstanceRecord> find_instance(const std::string& name)
{
    require_name(name);
    const std::string path = path_of(name, kRecordEnd);
    if (!is_there(path))
        return std::nullopt;
    return record_from(read_or_throw(path));
}

InstanceRecord require_instance(const SiteOptions& options)
{
    if (!options.instance.empty()) {
        if (std::optional<InstanceRecord> found = find_instance(options.instance))
            return *std::move(found);
        throw Trouble("no instance is recorded as " + options.instance);
    }
    const Site site = settled(options.site);
    for (InstanceRecord& record : all_instances()) {
        if (record.site.application_dir() == site.application_dir())
            return std::move(record);
    }
    throw Trouble("no instance is recorded in " + site.application_dir());
}

Site site_of(const SiteOptions& options)
{
    return options.instance.empty() ? settled(options.site) : require_instance(options).site;
}

void load_files(const std::string& name, Release& release)
{
    if (!release.files.empty() || release.filesId.empty())
        return;
    const std::string path = files_path(name, release.filesId);
    const std::string text = read_or_throw(path);
    if (sha256_of(text).compare(0, kIdLength, release.filesId) != 0)
        throw Trouble(path + " is damaged");
    release.files = files_from(text);
}

void save(InstanceRecord& record)
{
    // The record comes last: it is what counts. A list that is ahead of it is made again by the
    // next one to save it.
    std::set<std::string> used;
    for (Release* const release : releases(record)) {
        store_files(record.name, *release);
        used.insert(release->filesId);
    }
    save_list(record);
    replace(path_of(record.name, kRecordEnd), record_text(record));
    remove_files(record.name, used);
}

void save_new(InstanceRecord& record)
{
    provide_store();
    const TDescriptor lock = take_lock(std::string(kStore) + kStoreLock, std::chrono::hours(1));
    if (find_instance(record.name))
        throw Trouble("instance " + record.name + " is already recorded");
    for (const InstanceRecord& other : all_instances()) {
        if (other.site.application_dir() == record.site.application_dir())
            throw Trouble(record.site.application_dir() + " already has instance " + other.name);
    }
    save(record);
}

void forget(const std::string& name)
{
    for (const char* const end : {kRecordEnd, kListEnd}) {
        const std::string path = path_of(name, end);
        if (::unlink(path.c_str()) != 0 && errno != ENOENT)
            throw_failed("cannot remove", path);
    }
    remove_files(name, {});
    sync(kStore);
}

std::string list_path(const std::string& name)
{
    return path_of(name, kListEnd);
}

}  // namespace tarvik::ctl
