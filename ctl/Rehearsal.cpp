#include "ctl/Rehearsal.h"

#include "app/FileCopier.h"
#include "app/Listing.h"
#include "app/SiteUser.h"

#include <boost/filesystem/exception.hpp>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

namespace fs = boost::filesystem;

namespace tarvik::ctl {

namespace {

constexpr char kFileInTheWay[] = "a file stands where a directory must go";
constexpr char kLinkToNowhere[] = "a link that leads nowhere stands where a directory must go";
constexpr mode_t kExecutable = 0111;
constexpr char kNeitherKind[] = "neither a file nor a directory, in a writable mapping";

struct Split {
    std::string parent, name;
};

/// @param path  separators before its last name are not part of the parent.
Split split(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    const std::size_t end = path.find_last_not_of('/', slash);
    return {end == std::string::npos ? "/" : path.substr(0, end + 1), path.substr(slash + 1)};
}

Fate fate_of(const SiteView::Entry& entry)
{
    if (entry.error != 0 || entry.step != SiteView::kNoStep)
        return Fate::Create;
    return entry.is_file()     ? Fate::ReplaceDifferent
        : entry.is_link()      ? Fate::ReplaceLink
        : entry.is_directory() ? Fate::ReplaceDirectory
                               : Fate::ReplaceOther;
}

/// @return whether a directory has to be walked: once as part of a mapping, and at most once more,
/// before that, while it was left out.
bool first_visit(SiteView::Directory& directory, bool excluded)
{
    return !directory.walked[false] && !std::exchange(directory.walked[excluded], true);
}

mode_t permissions(const Attributes& attributes)
{
    return attributes.mode & kModeBits;
}

}  // namespace

Rehearsal::Rehearsal(const std::string& packageDir, const std::string& appDir,
                     const SharedAccounts& accounts, TargetDirectories& known, std::size_t count)
    : packageDir_(packageDir), appDir_(appDir), accounts_(accounts), known_(known)
{
    preview_.steps.reserve(count);
    pairs_.reserve(count);
    pairSteps_.reserve(count);
}

void Rehearsal::install(const FSAInstallFileinfo& file, const Source& source)
{
    // It is written over what was allocated for the last one.
    const std::string& target = target_.assign(appDir_).append("/").append(file.targetPath);
    if (target.size() >= PATH_MAX)
        return fail(target, std::strerror(ENAMETOOLONG));
    enter_parent(target);
    if (source.error != 0)
        fail(target, join("package", file.sourcePath) + ": " + std::strerror(source.error));
    else if (source.directory)
        install_directory(target);
    else
        install_file(file, target);
}

void Rehearsal::enter_parent(const std::string& target)
{
    const std::size_t slash = target.rfind('/');
    if (slash == parentPath_.size() && target.compare(0, slash, parentPath_) == 0)
        return;
    const std::string path = split(target).parent;
    parentPath_.clear();
    if (target.back() == '/')  // the parent is then the target itself
        remember(split(path).parent);
    parent_ = site_.at(path);
    if (parent_.directory == nullptr)
        return;  // it is made now, or is what goes wrong
    parentPath_ = path;
    remember(path);
    if (!parent_.is_link())
        open_to_site(*parent_.directory, path);
    parentDenial_ = site_.denial(*parent_.directory);
}

void Rehearsal::open_to_site(Directory& directory, const std::string& path)
{
    Attributes& attributes = directory.attributes;
    const mode_t bits = site_bits(attributes.status(), accounts_.siteUser, accounts_.clients);
    const mode_t mode = site_.widened(attributes, bits);
    if ((mode & bits) != bits && warned_.insert(&directory).second)
        preview_.warnings.push_back({shown(path), "its mode is another user's to change"});
    if (mode == attributes.mode)
        return;
    Step& step = step_about(directory, path);
    attributes.mode = mode;
    step.mode = permissions(attributes);
}

void Rehearsal::install_directory(const std::string& target)
{
    const std::string path = target.back() == '/' ? split(target).parent : target;
    if (Directory* const directory = provide_directory(path))
        step_about(*directory, path);
}

/// @return the directory, made with its parents where it is missing; null when it cannot be had.
SiteView::Directory* Rehearsal::provide_directory(const std::string& path)
{
    Entry entry = site_.at(path);
    if (entry.directory != nullptr || entry.error == SiteView::kBlocked)
        return entry.directory;
    if (entry.error == 0) {
        fail(path, entry.is_link() ? kLinkToNowhere : kFileInTheWay);
        return nullptr;
    }
    const Split place = split(path);
    Directory* const parent = provide_directory(place.parent);
    if (parent == nullptr)
        return nullptr;
    entry = site_.at(*parent, place.name);
    const int error = entry.error == ENOENT ? site_.denial(*parent) : entry.error;
    if (error != 0) {
        fail(path, std::strerror(error));
        return nullptr;
    }
    Directory& made =
        site_.make_directory(*parent, place.name, kDirectoryMode, preview_.steps.size());
    Step step = kept(path, made.attributes.mode, true);
    step.fate = Fate::Create;
    step.before = 0;
    add_step(std::move(step));
    return &made;
}

void Rehearsal::install_file(const FSAInstallFileinfo& file, const std::string& target)
{
    if (parent_.error == SiteView::kBlocked)
        return;
    if (parent_.directory == nullptr)
        return fail(target, std::strerror(parent_.error != 0 ? parent_.error : ENOTDIR));
    Directory& parent = *parent_.directory;
    if (parentDenial_ != 0) {
        if (closed_.insert(&parent).second)  // the others in it meet the same
            fail(target, std::strerror(parentDenial_));
        return;
    }
    // Of the plan, which outlives the view.
    const std::string_view name =
        std::string_view(file.targetPath).substr(file.targetPath.rfind('/') + 1);
    const Entry entry = site_.at(parent, name);
    if (entry.error == SiteView::kBlocked)
        return;
    const int error = name.empty() ? EISDIR : obstacle(parent, entry);
    if (error == SiteView::kBlocked)
        return site_.block(parent, name);
    if (error != 0)
        return fail(target, std::strerror(error));
    put_file(file, parent, name, entry);
}

/// @return an `errno` value: why what is there cannot be replaced; 0: it can, or nothing is there.
int Rehearsal::obstacle(const Directory& parent, const Entry& entry)
try {
    if (entry.error != 0)
        return entry.error == ENOENT ? 0 : entry.error;
    if (site_.is_protected(parent, entry.attributes))
        return EPERM;
    return entry.is_directory() && !site_.names(*entry.directory).empty() ? ENOTEMPTY : 0;
} catch (const fs::filesystem_error&) {  // an empty directory can be removed without being read
    site_.hide(*entry.directory);
    return SiteView::kBlocked;
}

void Rehearsal::put_file(const FSAInstallFileinfo& file, Directory& parent, std::string_view name,
                         const Entry& entry)
{
    const mode_t programBits = installed_mode(file) & kExecutable;
    Step step {fate_of(entry)};
    step.before = step.fate == Fate::Create ? 0 : permissions(entry.attributes);
    step.mode = installed_mode(file);
    step.becomesProgram =
        programBits != 0 && !(entry.is_file() && (step.before & programBits) == programBits);
    step.path = file.targetPath;
    if (step.fate == Fate::ReplaceDifferent)
        compare_later(file, parent, name, entry);
    site_.make_file(parent, name, step.mode, preview_.steps.size());
    preview_.steps.push_back(std::move(step));
}

void Rehearsal::compare_later(const FSAInstallFileinfo& file, const Directory& parent,
                              std::string_view name, const Entry& entry)
{
    const bool foreign = entry.attributes.owner != site_.user()
        || entry.attributes.group != site_.group_of_new(parent);
    pairs_.push_back({{packageDir_, file.sourcePath}, {parent.path, name}, entry.size});
    pairSteps_.push_back(
        {preview_.steps.size(), foreign ? Fate::ReplaceForeign : Fate::ReplaceEqual});
}

void Rehearsal::widen(const InstallPlan& plan)
{
    for (const std::string& dir : plan.writableDirs) {
        remember(split(dir).parent);
        remember(dir);
    }
    const MappingKeys others = mapping_keys(plan.otherDirs);
    for (const std::string& dir : plan.writableDirs)
        widen_mapping(dir, others);
}

void Rehearsal::widen_mapping(const std::string& dir, const MappingKeys& others)
try {
    Entry top = site_.at(dir);
    if (top.is_link() && dir.back() == '/' && top.directory != nullptr)
        top.attributes = top.directory->attributes;
    Listing listing = {{"", top}};
    if (top.is_directory()) {
        Exclusions exclusions(dir, others);
        const bool excluded = exclusions.cover("");
        top.directory->willBeOpened = !excluded;
        if (first_visit(*top.directory, excluded))
            list_below(*top.directory, "", exclusions, listing);
    }
    Exclusions exclusions(dir, others);
    for (const auto& [path, entry] : listing) {
        if (!exclusions.cover(path))
            widen_entry(path.empty() ? dir : join(dir, path), entry, path.empty());
    }
} catch (const fs::filesystem_error& e) {
    fail(e.path1().native(), e.code().message(), false);
}

void Rehearsal::list_below(Directory& directory, const std::string& path, Exclusions& exclusions,
                           Listing& listing)
{
    for (const std::string& name : site_.names(directory)) {
        const std::string below = path_below(path, name);
        const Entry entry = site_.at(directory, name);
        listing.emplace_back(below, entry);
        if (!entry.is_directory())
            continue;
        const bool excluded = exclusions.cover(below);
        entry.directory->willBeOpened = !excluded;
        if (first_visit(*entry.directory, excluded))
            list_below(*entry.directory, below, exclusions, listing);
    }
}

void Rehearsal::widen_entry(const std::string& path, const Entry& entry, bool isDestination)
{
    if (entry.error == SiteView::kBlocked)
        return;
    if (entry.error != 0)
        return fail(path, std::strerror(entry.error));
    if (!entry.is_directory() && !entry.is_file())
        return fail(path, kNeitherKind);
    Attributes attributes = entry.is_directory() ? entry.directory->attributes : entry.attributes;
    const mode_t bits = web_server_bits(attributes.status(), accounts_);
    const mode_t before = attributes.mode;
    attributes.mode = site_.widened(attributes, bits);
    if ((attributes.mode & bits) != bits) {  // below the destination, it may well stay so
        if (isDestination)
            fail(path, std::strerror(EPERM));
        return;
    }
    Step* const step = entry.is_directory() ? &step_about(*entry.directory, path)
        : entry.step != SiteView::kNoStep   ? &preview_.steps[entry.step]
        : attributes.mode != before         ? &add_step(kept(path, before, false))
                                            : nullptr;
    if (entry.is_directory())
        entry.directory->attributes = attributes;
    if (step == nullptr)
        return;
    step->mode = permissions(attributes);
    const bool has_been_one = step->fate == Fate::Keep || step->fate == Fate::ReplaceDifferent;
    step->becomesWritable = !has_been_one || (step->before & bits) != bits;
}

Preview Rehearsal::finish()
{
    const std::vector<char> same = same_contents(pairs_);
    for (std::size_t i = 0; i < same.size(); ++i) {
        if (same[i] != 0)
            preview_.steps[pairSteps_[i].step].fate = pairSteps_[i].ifEqual;
    }
    for (const std::string& path : site_.hidden())
        preview_.warnings.push_back({shown(path), kHidden});
    return std::move(preview_);
}

/// @return a path in the application's directory as steps have it.
std::string Rehearsal::shown(const std::string& path) const
{
    if (path.compare(0, appDir_.size(), appDir_) != 0)
        return path;
    const std::size_t start = path.find_first_not_of('/', appDir_.size());
    if (start == std::string::npos)
        return ".";
    return start == appDir_.size() ? path : path.substr(start);
}

Step Rehearsal::kept(const std::string& path, mode_t mode, bool directory) const
{
    Step step {Fate::Keep};
    step.directory = directory;
    step.before = step.mode = mode & kModeBits;
    step.path = shown(path);
    return step;
}

Step& Rehearsal::add_step(Step step)
{
    preview_.steps.push_back(std::move(step));
    return preview_.steps.back();
}

Step& Rehearsal::step_about(Directory& directory, const std::string& path)
{
    if (directory.step == SiteView::kNoStep) {
        directory.step = preview_.steps.size();
        add_step(kept(path, directory.attributes.mode, true));
    }
    return preview_.steps[directory.step];
}

void Rehearsal::fail(const std::string& path, const std::string& reason, bool undone)
{
    if (preview_.failures.empty())
        preview_.undoes = undone;
    preview_.failures.push_back({shown(path), reason});
    const Split place = split(path);
    if (Directory* const parent = site_.at(place.parent).directory)
        site_.block(*parent, place.name);
}

/// What the installation comes by only after its first failure, it does not come by.
void Rehearsal::remember(const std::string& path)
{
    if (preview_.failures.empty())
        known_.remember(path);
}

}  // namespace tarvik::ctl
