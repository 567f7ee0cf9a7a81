#include "common/TmpFile.h"

#include "common/ExSystemError.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>

namespace tarvik {

namespace {

/// @param name  in: a template ending in six X; out: the name of the file created.
int create_unique(std::string& name)
{
    const int descriptor = ::mkostemp(name.data(), O_CLOEXEC);
    if (descriptor < 0)
        throwSystemError("mkstemp() failed: ", errno);
    return descriptor;
}

}  // namespace

TmpFileBase::TmpFileBase(const std::string& prefix)
    : name_(prefix + "XXXXXX"), buffer_(create_unique(name_), std::ios::out)
{
}

TmpFile::TmpFile(const std::string& prefix, bool autoclean)
    : TmpFileBase(prefix), std::ostream(&buffer_), autoclean_(autoclean)
{
}

TmpFile::~TmpFile()
{
    if (autoclean_ && ::unlink(name_.c_str()) != 0 && errno != ENOENT)
        std::cerr << "TmpFile autoclean failed: " << std::strerror(errno) << '\n';
}

}  // namespace tarvik
