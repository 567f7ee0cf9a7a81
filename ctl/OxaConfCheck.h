#pragma once

#include "ctl/HostFinding.h"

namespace tarvik::ctl {

/// @return what is wrong with the panel's file of paths, whose mistakes nobody else reports. No
///         file at all is as good as any: there is a default for every key. Lines keep their
///         numbers when one is cured.
HostFindings look_at_oxa_conf();

}  // namespace tarvik::ctl
