#include "app/fsappactions.h"

#include "app/InstallPlan.h"
#include "app/InstallUndo.h"
#include "app/InstallWalk.h"
#include "app/ModeWidener.h"
#include "app/SiteUser.h"
#include "app/TargetDirectories.h"
#include "common/ExSystemError.h"

#include <iostream>

namespace tarvik {

namespace {

void install(const InstallPlan& plan, const std::string& packageDir, const std::string& appDir,
             uid_t siteUser, bool makeWebserverWritable, TargetDirectories& directories)
{
    install_targets(plan, packageDir, appDir, siteUser, directories);
    if (makeWebserverWritable)
        widen_writable_mappings(plan, appDir, directories, siteUser);
}

bool report_failure(const FSACommonException& e)
{
    std::cerr << e.what() << '\n';
    return false;
}

void install_or_undo(const InstallPlan& plan, const std::string& packageDir,
                     const std::string& appDir, uid_t siteUser, bool makeWebserverWritable)
{
    TargetDirectories directories(appDir);
    try {
        install(plan, packageDir, appDir, siteUser, makeWebserverWritable, directories);
    } catch (const FSAFileException& e) {
        report_failure(e);
        remove_targets(plan, appDir, directories);
        throw;
    }
}

}  // namespace

std::string application_dir(const std::string& documentRoot, const std::string& appSubdir)
{
    const bool isDocumentRoot = appSubdir == "." || appSubdir == "/";
    return isDocumentRoot ? documentRoot : join(documentRoot, appSubdir);
}

bool fsa_install_htdocsfiles(const std::string& packageDir, const std::string& documentRoot,
                             const std::string& appSubdir, const FSAMetaDataReader& metadata,
                             const std::string& userName, bool makeWebserverWritable)
try {
    const std::string appDir = application_dir(documentRoot, appSubdir);
    const uid_t siteUser = site_user_id(userName);
    const InstallPlan plan = plan_install(packageDir, appDir, metadata);  // touches nothing
    install_or_undo(plan, packageDir, appDir, siteUser, makeWebserverWritable);
    return true;
} catch (const FSAFileException& e) {
    return report_failure(e);  // the second print of a file error is wanted
} catch (const FSAXMLException& e) {
    return report_failure(e);
}

}  // namespace tarvik
