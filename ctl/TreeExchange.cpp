#include "ctl/TreeExchange.h"

#include "app/SiteUser.h"
#include "common/misc.h"
#include "ctl/Child.h"
#include "ctl/InstanceStore.h"
#include "ctl/KeptTrees.h"
#include "ctl/NextTree.h"
#include "ctl/TreeTakeover.h"
#include "ctl/TreeUse.h"
#include "ctl/Trouble.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <utility>

namespace tarvik::ctl {

namespace {

constexpr int kPlace = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr mode_t kClosed = 0700;

[[noreturn]] void throw_failed(const std::string& path)
{
    throw Trouble(path + ": " + std::strerror(errno));
}

std::string beside_path(const Site& site, const std::string& name)
{
    return location_of(site).parent + "/" + name;
}

std::optional<Identity> identity_of(const std::string& directory)
{
    struct stat status;
    if (::lstat(directory.c_str(), &status) != 0 || !S_ISDIR(status.st_mode))
        return std::nullopt;
    return Identity {status.st_dev, status.st_ino};
}

template <class Task>
void do_as(const Site& site, const Task& task)
{
    static_cast<void>(ask_as(site.userName, [&task] {
        task();
        return std::string();
    }));
}

void set_own_mode(const std::string& directory, mode_t mode)
{
    const TDescriptor tree(::open(directory.c_str(), kPlace));
    if (!tree || ::chmod(descriptor_path(tree.get()).c_str(), mode) != 0)
        throw_failed(directory);
}

void set_mode(const Site& site, const std::string& name, mode_t mode)
{
    do_as(site, [&] { set_own_mode(beside_path(site, name), mode); });
}

/// The first name for an older kept tree that none has.
std::string older_name(const InstanceRecord& record)
{
    const std::string start = previous_name(location_of(record.site).name) + ".";
    for (int number = 1;; ++number) {
        std::string name = start + std::to_string(number);
        if (std::none_of(record.kept.begin(), record.kept.end(),
                         [&](const KeptRelease& kept) { return kept.directory == name; }))
            return name;
    }
}

/// Gives the old tree its place beside the application, after what was there, and closes it, as the
/// old release could still be visited there. A second time it does what is left to do.
void keep_old_tree(InstanceRecord& record)
{
    const Exchange& exchange = *record.exchange;
    const std::string latest = previous_name(location_of(record.site).name);
    // It may stand in the place of the tree that came in.
    const bool swapped = exchange.directory == latest;
    const std::string older = older_name(record);
    const std::string from = beside_path(record.site, exchange.directory);
    const std::string to = beside_path(record.site, latest);
    do_as(record.site, [&] {
        if (!swapped && identity_of(from)) {
            if (identity_of(to)
                && ::rename(to.c_str(), beside_path(record.site, older).c_str()) != 0)
                throw_failed(to);
            if (::rename(from.c_str(), to.c_str()) != 0)
                throw_failed(from);
        }
        set_own_mode(to, kClosed);
    });
    if (swapped)
        record.kept.erase(record.kept.begin());
    else if (!record.kept.empty())
        record.kept.front().directory = older;
    record.kept.insert(record.kept.begin(),
                       {latest, exchange.outgoingMode, std::move(record.current)});
}

void exchange_names(const std::string& appDir, const std::string& other)
{
    if (::renameat2(AT_FDCWD, appDir.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE) != 0)
        throw Trouble(appDir + " cannot be exchanged: " + std::strerror(errno)
                      + "; see --in-place");
}

TDescriptor open_place(const std::string& directory)
{
    TDescriptor place(::open(directory.c_str(), kPlace));
    if (!place)
        throw_failed(directory);
    return place;
}

/// Two visitors who make a file of one name, the one in the old tree behind the last look and the
/// other in the new tree before what is in the old one has come over, make two files. So the last
/// looks come right before the exchange, and that of the web server's account, which most visitors
/// work as, once more right after it, by processes that are at hand. They wait for each other, as
/// the system lets those go first that have waited.
void exchange_trees(const InstanceRecord& record, const std::string& other)
{
    const Site& site = record.site;
    const std::string appDir = site.application_dir();
    const NewFiles files(site, appDir, record.current, other, record.exchange->release);
    files.take_all();
    Question exchanger(site.userName, [&] {
        if (told_to_go()) {
            files.take_own();
            say("");
        }
        if (told_to_go()) {
            exchange_names(appDir, other);
            say("");
        }
        return std::string();
    });
    Question looker(kWebServerUser, [&] {
        const TDescriptor from = open_place(appDir);
        const TDescriptor to = open_place(other);
        while (told_to_go()) {
            files.take_web_servers(from.get(), to.get());
            say("");
        }
        return std::string();
    });
    const auto step = [](Question& question) {
        question.go();
        return question.hear().has_value();
    };
    if (step(exchanger) && step(looker) && step(exchanger)) {
        static_cast<void>(step(looker));  // if it fails, all is looked through later
        return;
    }
    static_cast<void>(looker.answer());
    static_cast<void>(exchanger.answer());
    throw Trouble(appDir + " was not exchanged");
}

/// All that comes after the exchange.
void finish(InstanceRecord& record)
{
    const Site& site = record.site;
    Exchange& done = *record.exchange;
    load_files(record.name, done.release);
    // After a kill the old tree may have its last name already.
    const bool moved = !identity_of(beside_path(site, done.directory));
    const std::string oldName = moved ? previous_name(location_of(site).name) : done.directory;
    const std::string oldTree = beside_path(site, oldName);
    set_mode(site, oldName, done.outgoingMode);
    if (!wait_until_unused(oldTree))
        std::cerr << "zendrelctl: some processes still work in " << oldTree << '\n';
    const std::string appDir = site.application_dir();
    NewFiles(site, oldTree, record.current, appDir, done.release).take_all();
    keep_old_tree(record);
    record.current = std::move(done.release);
    record.exchange.reset();
    save(record);
}

/// Takes back what was prepared for an exchange that has not happened.
void take_back(InstanceRecord& record)
{
    const std::string name = record.exchange->directory;
    const bool kept = name == previous_name(location_of(record.site).name);
    if (!kept)
        remove_tree(record.site, name);
    else if (identity_of(beside_path(record.site, name)))
        set_mode(record.site, name, kClosed);
    record.exchange.reset();
    save(record);
}

}  // namespace

void require_exchangeable(const Site& site)
{
    const auto [parent, name] = location_of(site);
    const std::string next = beside_path(site, next_name(name));
    do_as(site, [&, parent = parent] {
        const std::string appDir = site.application_dir();
        struct stat own;
        struct stat above;
        if (::lstat(appDir.c_str(), &own) != 0 || ::stat(parent.c_str(), &above) != 0)
            throw_failed(appDir);
        const std::string cannot = appDir + " cannot be exchanged: ";
        if (!S_ISDIR(own.st_mode))
            throw Trouble(cannot + "it is no directory");
        if (own.st_dev != above.st_dev)
            throw Trouble(cannot + "it is a file system of its own; see --in-place");
        if (::access(parent.c_str(), W_OK | X_OK) != 0)
            throw Trouble(cannot + site.userName + " may not write in " + parent
                          + "; see --in-place");
        if (::lstat(next.c_str(), &own) == 0)
            throw Trouble(next + " is in the way");
    });
}

Pending copy_beside(const InstanceRecord& record, const Release& next)
{
    const Site& site = record.site;
    const std::string appDir = site.application_dir();
    const std::string copy = beside_path(site, record.exchange->directory);
    const Names changed = changed_by_site(site, appDir, record.current);
    const NextTree rules(record.current, next, changed);
    do_as(site, [&] {
        if (::mkdir(copy.c_str(), kClosed) != 0)
            throw_failed(copy);
        set_own_mode(copy, record.exchange->outgoingMode);
    });
    TakeoverRules takeover;
    takeover.decide = [&](const auto& path, const auto& status) {
        return rules.decide(path, status);
    };
    takeover.bits = [&](const auto& path, const auto& made) { return rules.bits(path, made); };
    takeover.pass_over = [&](const std::string& path, EntryType type) {
        return type == EntryType::Regular && rules.is_brought(path);
    };
    return {{changed.begin(), changed.end()},
            take_over_as(site.userName, appDir, copy, takeover, {""})};
}

void complete_copy(const InstanceRecord& record, const Pending& pending)
{
    const std::string& user = record.site.userName;
    const std::string from = record.site.application_dir();
    const std::string to = beside_path(record.site, record.exchange->directory);
    take_over_rest(user, from, to, Existing::Stays, pending.left);
    const Names changed(pending.changed.begin(), pending.changed.end());
    if (changed.empty())
        return;
    TakeoverRules rules;
    rules.decide = [&](const std::string& path, const struct stat& status) {
        return !S_ISDIR(status.st_mode) && changed.count(path) != 0 ? Take::Link : Take::Skip;
    };
    rules.existing = Existing::Goes;
    take_over_rest(user, from, to, rules.existing,
                   take_over_as(user, from, to, rules, pending.changed));
}

void open_kept(const InstanceRecord& record)
{
    const KeptRelease& kept = record.kept.front();
    set_mode(record.site, kept.directory, kept.mode);
    const std::string appDir = record.site.application_dir();
    const std::string tree = beside_path(record.site, kept.directory);
    NewFiles(record.site, appDir, record.current, tree, kept.release).take_all();
}

Exchange begun_exchange(const InstanceRecord& record, const std::string& command,
                        const std::string& directory)
{
    struct stat status;
    const std::string appDir = record.site.application_dir();
    if (::lstat(appDir.c_str(), &status) != 0)
        throw_failed(appDir);
    return {command, directory, std::nullopt, status.st_mode & kModeBits, {}};
}

void exchange(InstanceRecord& record)
{
    const std::string other = beside_path(record.site, record.exchange->directory);
    record.exchange->incoming = identity_of(other);
    if (!record.exchange->incoming)
        throw_failed(other);
    save(record);
    exchange_trees(record, other);
    finish(record);
}

bool settle_exchange(InstanceRecord& record)
{
    if (!record.exchange)
        return false;
    const std::optional<Identity>& incoming = record.exchange->incoming;
    const bool happened = incoming && identity_of(record.site.application_dir()) == incoming;
    if (happened)
        finish(record);
    else
        take_back(record);
    return happened;
}

}  // namespace tarvik::ctl
