#pragma once

#include "ctl/HostFinding.h"

#include <string>

namespace tarvik::ctl {

/// What a look at this host is about besides the host itself; either may be empty.
struct HostQuestion {
    std::string vhostPath;
    std::string userName;
};

/// @return what this host lacks of that which zendrel needs, in the order in which it is cured
/// best.
HostFindings look_at_host(const HostQuestion& question);

}  // namespace tarvik::ctl
