#pragma once

#include "app/fsappmetadata.h"

#include <string>

namespace tarvik::ctl {

/// An unpacked package, as zendrel's options name it.
struct PackageSource {
    std::string directory;
    std::string metadataFile;  ///< read in place of the package's own, unless empty

    /// @return the metadata file that counts.
    std::string metadata_path() const;
};

/// @return the same with absolute paths. @throws Trouble when there is no such package.
PackageSource settled(PackageSource package);

/// @throws Trouble with the reader's own words.
FSAMetaDataReader read_metadata(const PackageSource& package);

}  // namespace tarvik::ctl
