#pragma once

#include "app/InstallPlan.h"
#include "app/ModeWidener.h"
#include "app/TargetDirectories.h"
#include "ctl/Comparison.h"
#include "ctl/Preview.h"
#include "ctl/SiteView.h"
#include "ctl/SourceCheck.h"

#include <cstddef>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tarvik::ctl {

/**
 * Goes through an installation as `FileCopier` and `ModeWidener` do, step by step, with a view of
 * the site in place of the site.
 */
class Rehearsal {
public:
    /// The texts are borrowed.
    /// @param known  learns what the installation has come by when its undo begins; borrowed.
    /// @param count  of files, about.
    Rehearsal(const std::string& packageDir, const std::string& appDir,
              const SharedAccounts& accounts, TargetDirectories& known, std::size_t count);

    /// @param file  of a plan that outlives this.
    void install(const FSAInstallFileinfo& file, const Source& source);
    void widen(const InstallPlan& plan);
    /// @return what has been found. Nothing more can be asked for.
    Preview finish();

private:
    using Directory = SiteView::Directory;
    using Entry = SiteView::Entry;
    /// What a step becomes when both files of a pair are equal.
    struct PairOf {
        std::size_t step;
        Fate ifEqual;
    };
    using Listing = std::vector<std::pair<std::string, Entry>>;

    void enter_parent(const std::string& target);
    void open_to_site(Directory& directory, const std::string& path);
    Directory* provide_directory(const std::string& path);
    void install_directory(const std::string& target);
    void install_file(const FSAInstallFileinfo& file, const std::string& target);
    int obstacle(const Directory& parent, const Entry& entry);
    void put_file(const FSAInstallFileinfo& file, Directory& parent, std::string_view name,
                  const Entry& entry);
    void compare_later(const FSAInstallFileinfo& file, const Directory& parent,
                       std::string_view name, const Entry& entry);

    void widen_mapping(const std::string& dir, const MappingKeys& others);
    void list_below(Directory& directory, const std::string& path, Exclusions& exclusions,
                    Listing& listing);
    void widen_entry(const std::string& path, const Entry& entry, bool isDestination);

    std::string shown(const std::string& path) const;
    Step kept(const std::string& path, mode_t mode, bool directory) const;
    Step& add_step(Step step);
    Step& step_about(Directory& directory, const std::string& path);
    void fail(const std::string& path, const std::string& reason, bool undone = true);
    void remember(const std::string& path);

    const std::string& packageDir_;
    const std::string& appDir_;
    const SharedAccounts accounts_;
    TargetDirectories& known_;
    SiteView site_;
    std::string target_;
    std::string parentPath_;  ///< of the last target, while `parent_` is a directory
    Entry parent_;
    int parentDenial_ = 0;               ///< why nothing can be put into it
    std::set<const Directory*> closed_;  ///< told of, as nothing can be put into them
    std::set<const Directory*> warned_;  ///< told of, as their modes stay
    std::vector<FilePair> pairs_;        ///< to be compared
    std::vector<PairOf> pairSteps_;
    Preview preview_;
};

}  // namespace tarvik::ctl
