#pragma once

#include "ctl/Site.h"

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

/// What is known of an instance after its deployment.
namespace tarvik::ctl {

/// A file or directory that an installation has put into the site.
struct RecordedFile {
    std::string path;  ///< in the application's directory; empty for the directory itself
    bool directory = false;
    mode_t mode = 0;     ///< permission bits, as they were after the installation
    std::string sha256;  ///< of a file
};

/// How a package was deployed, for the commands that follow.
struct DeployOptions {
    std::string metadataFile;  ///< in place of the package's own, unless empty
    bool skipWebserverWrite = false;
    bool script = false;  ///< the package's script is run
    std::vector<std::string> scriptParameters;
    std::string apacheConf;  ///< the generated file's name; empty: none is written

    bool operator==(const DeployOptions& other) const;
};

/// One package in one tree.
struct Release {
    std::string name, version, release;
    std::string packageDir;
    std::string installed;  ///< when, in UTC, as ISO 8601 has it
    DeployOptions options;
    std::vector<RecordedFile> files;        ///< parents first
    std::string filesId;                    ///< what they are stored under; empty: not stored yet
    std::vector<std::string> writableDirs;  ///< destinations of mappings, like the files' paths
    std::vector<std::string> otherDirs;
};

/// A tree that an upgrade has replaced.
struct KeptRelease {
    std::string directory;  ///< its name, beside the application's directory
    mode_t mode = 0;        ///< what the tree's own mode was while it was in use
    Release release;
};

/// Tells directories apart, whatever they are called.
struct Identity {
    dev_t device = 0;
    ino_t inode = 0;
    bool operator==(const Identity& other) const
    {
        return device == other.device && inode == other.inode;
    }
};

/// An exchange that has begun. After a kill, whatever directory stands in the application's place
/// tells whether it has happened.
struct Exchange {
    std::string command;               ///< what began it, such as "upgrade"
    std::string directory;             ///< of the tree to come in, beside the application's
    std::optional<Identity> incoming;  ///< none as long as that tree is being made
    mode_t outgoingMode = 0;           ///< of the tree that is in use before
    Release release;                   ///< what is in it, then
};

enum class State {
    Deploying,  ///< begun; the same command goes on
    Installed,
    Removing,
};

struct InstanceRecord {
    std::string name;
    Site site;
    State state = State::Deploying;
    Release current;
    std::vector<KeptRelease> kept;  ///< the latest first
    std::string listId;             ///< under what the files are stored that the list has
    std::optional<Exchange> exchange;
};

/// @return what `state` is called in records and for people.
const char* state_name(State state);

/// Records as JSON, without the files of their releases. @throws Trouble for what is no record.
std::string record_text(const InstanceRecord& record);
InstanceRecord record_from(const std::string& text);

std::string files_text(const std::vector<RecordedFile>& files);
std::vector<RecordedFile> files_from(const std::string& text);

}  // namespace tarvik::ctl
