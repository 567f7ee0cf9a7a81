#include "common/Traceback.h"

#include <cxxabi.h>
#include <execinfo.h>

#include <algorithm>
#include <ostream>

namespace tarvik {

namespace {

/// Demangles one name after another into the same buffer, which the ABI function enlarges as
/// needed.
class Demangler {
public:
    /// @return the readable name, valid until the next call; null when it cannot be demangled.
    const char* operator()(const char* mangledName)
    {
        int status = 0;
        char* const name = abi::__cxa_demangle(mangledName, buffer_.get(), &size_, &status);
        if (status != 0)
            return nullptr;
        static_cast<void>(buffer_.release());  // the function may have moved it
        buffer_.reset(name);
        return name;
    }

private:
    std::unique_ptr<char, FreeMemory> buffer_;
    std::size_t size_ = 0;
};

/// Frame texts read "binary(mangled+0x12) [0x...]"; only the name between "(" and "+" is replaced.
std::string with_readable_name(const std::string& text, Demangler& demangle)
{
    const std::size_t open = text.find('(');
    if (open == std::string::npos)
        return text;
    const std::size_t plus = text.find('+', open + 1);
    if (plus == std::string::npos)
        return text;
    const char* const name = demangle(text.substr(open + 1, plus - open - 1).c_str());
    return name == nullptr ? text : text.substr(0, open + 1) + name + text.substr(plus);
}

}  // namespace

Traceback::Traceback(std::size_t skip) : frameCount_(0), skip_(skip), frames_()
{
    frameCount_ = static_cast<std::size_t>(std::max(0, ::backtrace(frames_, kMaxFrames)));
    skip_ = std::min(skip_, frameCount_);
}

Traceback::Traceback(const Traceback& other)
    : frameCount_(other.frameCount_), skip_(other.skip_), frames_()
{
    std::copy(std::begin(other.frames_), std::end(other.frames_), frames_);
}

Traceback& Traceback::operator=(const Traceback& other)
{
    if (this != &other) {
        frameCount_ = other.frameCount_;
        skip_ = other.skip_;
        std::copy(std::begin(other.frames_), std::end(other.frames_), frames_);
        symbols_.reset();
    }
    return *this;
}

Traceback::~Traceback() = default;

std::ostream& operator<<(std::ostream& out, const Traceback& traceback)
{
    if (!traceback.symbols_) {
        traceback.symbols_.reset(
            ::backtrace_symbols(traceback.frames_, static_cast<int>(traceback.frameCount_)));
    }
    char* const* const symbols = traceback.symbols_.get();
    if (symbols != nullptr && traceback.skip_ < traceback.frameCount_) {
        out << "Traceback:" << std::endl;
        Demangler demangle;
        for (std::size_t i = traceback.skip_; i < traceback.frameCount_; ++i)
            out << '\t' << with_readable_name(symbols[i], demangle) << std::endl;
    } else {
        out << "Traceback addresses:" << std::endl;
        for (std::size_t i = traceback.skip_; i < traceback.frameCount_; ++i)
            out << '\t' << traceback.frames_[i] << std::endl;
    }
    return out;
}

std::string demangled(const char* mangledName)
{
    Demangler demangle;
    const char* const name = demangle(mangledName);
    return name == nullptr ? mangledName : name;
}

}  // namespace tarvik
