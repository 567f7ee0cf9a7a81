#include "ctl/Preview.h"

#include "app/SiteUser.h"
#include "ctl/Rehearsal.h"
#include "ctl/SideBySide.h"
#include "ctl/SourceCheck.h"
#include "ctl/UndoScope.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <utility>

namespace tarvik::ctl {

namespace {

constexpr char kNoGroup[] = "there is no such group";
constexpr char kNoUser[] = "there is no such user";

bool is_directory(const char* path)
{
    struct stat status;
    return ::stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

// The libraries' own look-ups say on both streams what they miss.

gid_t quiet_group_id(const char* name)
{
    const group* const found = ::getgrnam(name);
    return found == nullptr ? 0 : found->gr_gid;
}

uid_t quiet_user_id(const char* name)
{
    const passwd* const found = ::getpwnam(name);
    return found == nullptr ? 0 : found->pw_uid;
}

SharedAccounts shared_accounts()
{
    return {::geteuid(), quiet_user_id(kWebServerUser), quiet_group_id(kServicesGroup),
            quiet_group_id(kClientsGroup)};
}

std::vector<Foreseen> missing_accounts(const SharedAccounts& accounts)
{
    std::vector<Foreseen> missing;
    if (accounts.webServer == 0)
        missing.push_back({kWebServerUser, kNoUser});
    if (accounts.services == 0)
        missing.push_back({kServicesGroup, kNoGroup});
    return missing;
}

}  // namespace

bool Step::changes() const
{
    const bool stays = fate == Fate::Keep || fate == Fate::ReplaceEqual;
    return !stays || before != mode;
}

bool Preview::changes() const
{
    return !failures.empty()
        || std::any_of(steps.begin(), steps.end(), [](const Step& step) { return step.changes(); });
}

std::vector<Foreseen> host_failures(const Site& site)
{
    std::vector<Foreseen> failures;
    if (quiet_group_id(kClientsGroup) == 0)
        failures.push_back({kClientsGroup, kNoGroup});
    if (!is_directory(site.vhostPath.c_str()))
        failures.push_back({site.vhostPath, "there is no such directory for the virtual host"});
    const passwd* const user = ::getpwnam(site.userName.c_str());
    if (user != nullptr && !is_directory(user->pw_dir))
        failures.push_back({user->pw_dir, "there is no such home directory of " + site.userName});
    return failures;
}

Preview preview_extraction(const InstallPlan& plan, const std::string& packageDir,
                           const std::string& appDir, bool skipWebserverWrite)
{
    const SharedAccounts accounts = shared_accounts();
    const bool widens = !skipWebserverWrite && !plan.writableDirs.empty();
    TargetDirectories known(appDir);
    PlannedFiles files;
    for (const auto& [target, file] : plan.files)
        files.push_back(&file);
    Rehearsal rehearsal(packageDir, appDir, accounts, known, files.size());
    const std::vector<Source> sources = check_sources(files, packageDir);
    for (std::size_t i = 0; i < files.size(); ++i)
        rehearsal.install(*files[i], sources[i]);
    if (widens)
        rehearsal.widen(plan);
    Preview preview;
    Preview undo;
    do_both(
        {[&] { preview = rehearsal.finish(); }, [&] { find_at_stake(files, appDir, known, undo); }},
        files.size());
    if (widens) {
        for (Foreseen& missing : missing_accounts(accounts))
            preview.warnings.push_back(std::move(missing));
    }
    std::move(undo.warnings.begin(), undo.warnings.end(), std::back_inserter(preview.warnings));
    preview.atStake = std::move(undo.atStake);
    preview.removalEnds = std::move(undo.removalEnds);
    return preview;
}

}  // namespace tarvik::ctl
