#pragma once

#include "common/misc.h"
#include "ctl/Record.h"

#include <optional>
#include <string>
#include <vector>

/**
 * What is installed on this host, in "/var/lib/zendrel/instances", which is root's alone: for each
 * instance NAME.json, its record, NAME.xml, the list that `--delete-application` takes, and, while
 * a command is at work, NAME.lock.
 */
namespace tarvik::ctl {

/**
 * Keeps other commands from one instance as long as it lives, and as long as a child of this
 * process is at work for it.
 */
class InstanceLock {
public:
    /**
     * @param name     the instance's; it need not be recorded. @param command  told to who waits.
     * @param seconds  how long to wait for who holds the lock.
     * @throws Trouble that says who does; also when the name cannot be one.
     */
    InstanceLock(const std::string& name, const std::string& command, unsigned seconds);
    InstanceLock(const InstanceLock&) = delete;
    InstanceLock& operator=(const InstanceLock&) = delete;
    ~InstanceLock();

private:
    std::string path_;
    TDescriptor file_;
};

/// Records come without the files of their releases: those are many, and seldom wanted.
/// @return all that are recorded, by name. @throws Trouble when a record cannot be read.
std::vector<InstanceRecord> all_instances();
/// @return the instance of that name, if there is one.
std::optional<InstanceRecord> find_instance(const std::string& name);
/// @return the instance that is named, or that is in the application's directory of the site named.
/// @throws Trouble when there is none.
InstanceRecord require_instance(const SiteOptions& options);
/// Reads the files of a release of that instance, unless it has them. @throws Trouble
void load_files(const std::string& name, Release& release);
/// @return the site that is named, or that of the instance named.
Site site_of(const SiteOptions& options);

/**
 * Writes the record, with the files of releases that have not been stored, so that the old one or
 * the new one is there whatever happens.
 * @throws Trouble when it cannot be written; the old one is kept.
 */
void save(InstanceRecord& record);
/// The first record of an instance. @throws Trouble also when the name or the application's
/// directory is taken.
void save_new(InstanceRecord& record);
/// Removes the record with its list.
void forget(const std::string& name);

/// A recorded instance that no other command changes meanwhile.
class LockedInstance {
public:
    /// @param command, seconds  as for an InstanceLock. @throws Trouble as that and
    /// require_instance.
    LockedInstance(const SiteOptions& options, const std::string& command, unsigned seconds)
        : name_(require_instance(options).name), lock_(name_, command, seconds),
          record_(require_instance({{}, name_}))  // as it is now
    {
    }
    InstanceRecord& record() { return record_; }

private:
    std::string name_;
    InstanceLock lock_;
    InstanceRecord record_;
};

/// @return the file with the list of the instance's files. `save` keeps it as the record has it.
std::string list_path(const std::string& name);

}  // namespace tarvik::ctl
