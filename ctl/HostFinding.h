#pragma once

#include <string>
#include <vector>

namespace tarvik::ctl {

/// Something that this host lacks, or has in a wrong way, and the command that cures it.
struct HostFinding {
    std::string what;
    std::string cure;
};
using HostFindings = std::vector<HostFinding>;

void append(HostFindings& findings, const HostFindings& more);

/// @return a text as one word for a shell.
std::string shell_word(const std::string& text);

}  // namespace tarvik::ctl
