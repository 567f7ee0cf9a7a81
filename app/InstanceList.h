#pragma once

#include "app/FileList.h"

#include <string>
#include <vector>

namespace tarvik {

/// One file or directory of an instance.
struct InstanceFile {
    InstallSection section;
    std::string path;  ///< as listed
    std::string key;   ///< sorts byte by byte as the path sorts element by element
    bool plain;        ///< the path's text is just its elements with a separator between
};

InstanceFile instance_file(InstallSection section, const std::string& path);

/**
 * Reads an instance file list of any length.
 * @param text  the XML document.
 * @return its files in the order of the list.
 * @throws std::runtime_error when it is malformed, std::bad_alloc when memory runs out.
 */
std::vector<InstanceFile> parse_instance_list(const std::string& text);

}  // namespace tarvik
