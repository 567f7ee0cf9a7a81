#pragma once

#include <stdexcept>

namespace tarvik::ctl {

/// What ends a command with status 1: one line for the administrator, who gets it with whatever it
/// names escaped.
class Trouble : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

}  // namespace tarvik::ctl
