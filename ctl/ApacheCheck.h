#pragma once

#include "ctl/HostFinding.h"

#include <string>

namespace tarvik::ctl {

/**
 * Reads the server's configuration with what it includes, conditions taken as met, for the modules
 * that the generated files need and the line that takes these files in.
 * @param vhostPath  whose configuration is to be included; empty: that of any host.
 */
HostFindings look_at_apache(const std::string& vhostPath);

}  // namespace tarvik::ctl
