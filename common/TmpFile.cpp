#include "common/TmpFile.h"

#include "common/ExSystemError.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <utility>

namespace tarvik {

namespace {

/// @param name  in: a template ending in six X; out: the name of the file created.
TDescriptor create_unique(std::string& name)
{
    TDescriptor file(::mkostemp(name.data(), O_CLOEXEC));
    if (!file)
        throwSystemError("mkstemp() failed: ", errno);
    return file;
}

}  // namespace

DescriptorBuffer::DescriptorBuffer(TDescriptor file) noexcept : file_(std::move(file))
{
    setp(buffer_.begin(), buffer_.end());
}

bool DescriptorBuffer::write_out() noexcept
{
    const char* next = pbase();
    const char* const end = pptr();
    setp(buffer_.begin(), buffer_.end());  // what cannot be written is lost, and not tried again
    while (next != end) {
        const ssize_t written = retried(
            [&] { return ::write(file_.get(), next, static_cast<std::size_t>(end - next)); });
        if (written <= 0)
            return false;
        next += written;
    }
    return true;
}

bool DescriptorBuffer::close()
{
    // Closing any descriptor of a file reports what has been lost.
    if (!write_out())
        return false;
    TDescriptor copy(::fcntl(file_.get(), F_DUPFD_CLOEXEC, 0));
    return copy && copy.close();
}

DescriptorBuffer::int_type DescriptorBuffer::overflow(int_type next)
{
    if (!write_out())
        return traits_type::eof();
    if (!traits_type::eq_int_type(next, traits_type::eof()))
        sputc(traits_type::to_char_type(next));
    return traits_type::not_eof(next);
}

TmpFileBase::TmpFileBase(const std::string& prefix)
    : name_(prefix + "XXXXXX"), buffer_(create_unique(name_))
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
