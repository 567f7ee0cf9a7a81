#pragma once

#include "ctl/Record.h"

#include <string>
#include <vector>

/**
 * Putting another tree in the place of an application's directory, at a stroke: a visitor sees the
 * one or the other, never half of one. What is done before can be undone without a trace; what
 * comes after is gone on with, also by the next command after a kill.
 */
namespace tarvik::ctl {

/// Refuses what cannot be exchanged. @throws Trouble that says why, with nothing touched.
void require_exchangeable(const Site& site);

/// @return what to record before anything else is done; its release comes when the tree is ready.
/// @throws Trouble
Exchange begun_exchange(const InstanceRecord& record, const std::string& command,
                        const std::string& directory);

/// What is still to be taken over into a copy, once the next release is in it.
struct Pending {
    std::vector<std::string> changed;  ///< by the site: in place of what the release brings
    std::vector<std::string> left;     ///< by the site's user to the web server
};

/**
 * Makes a copy of the application's directory in the place that the record's exchange names, by
 * hard links, without what the next release brings itself and without what only the last one had.
 * What the site has changed in a writable mapping is taken whatever it was.
 * @param next  the release to come, planned.
 */
Pending copy_beside(const InstanceRecord& record, const Release& next);

/// The rest. What the web server has made comes after the installation, which would stumble on its
/// closed directories.
void complete_copy(const InstanceRecord& record, const Pending& pending);

/// Prepares the latest kept tree: takes what has come to the running one since over into it.
void open_kept(const InstanceRecord& record);

/**
 * Exchanges the application's directory for the tree that the record's exchange names, waits until
 * nobody works in the old one any more, takes over what has been put there meanwhile, and records
 * it all.
 * @throws Trouble when the exchange cannot be made; then nothing has changed.
 */
void exchange(InstanceRecord& record);

/// Brings an exchange that was begun to its end, or takes back what was prepared for it.
/// @return whether there was one that is now done.
bool settle_exchange(InstanceRecord& record);

}  // namespace tarvik::ctl
