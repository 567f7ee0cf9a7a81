#pragma once

#include <iostream>

namespace tarvik::ctl {

/// As long as it lives, what is written on std::cerr is lost: for work that reports what its caller
/// has reported already, or will find out in a better way.
class QuietErrors {
public:
    QuietErrors() : buffer_(std::cerr.rdbuf(nullptr)) { }
    QuietErrors(const QuietErrors&) = delete;
    QuietErrors& operator=(const QuietErrors&) = delete;
    ~QuietErrors() { std::cerr.rdbuf(buffer_); }  // which also forgets the failures

private:
    std::streambuf* buffer_;
};

}  // namespace tarvik::ctl
