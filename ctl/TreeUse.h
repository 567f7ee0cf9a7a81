#pragma once

#include <string>

namespace tarvik::ctl {

/**
 * Waits until no process works in a directory or has a file in it open for writing: requests that
 * were being answered when the directory was moved end with what they began with.
 * @return false when some do after ten seconds.
 */
bool wait_until_unused(const std::string& directory);

}  // namespace tarvik::ctl
