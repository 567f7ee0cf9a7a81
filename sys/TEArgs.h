#pragma once

#include "sys/sys.h"

#include <cstddef>
#include <initializer_list>
#include <string>
#include <vector>

namespace tarvik::sys {

/**
 * A program and its arguments: element 0 is the program's path or name. Copies share their strings
 * until one of them changes. Holds at most 100 strings.
 */
class TEArgs {
public:
    using TRep = std::vector<std::string>;

    class TEArgsError;
    class TOutOfRange;
    class TOverflow;

    static constexpr const char* exceed_lim =
        "The number of arguments has exceeded the defined limits";
    static constexpr const char* wrong_index = "Wrong index";

    TEArgs();
    /// As in `TEArgs {"file", "-bL", path}`. @throws TOverflow for more than 100.
    TEArgs(std::initializer_list<std::string> strings);

    /// Appends all elements of `other`, in order.
    /// @throws TOverflow when that would make more than 100; nothing is appended then.
    void push_back(const TEArgs& other);

    std::size_t size() const noexcept { return rep_->size(); }
    bool empty() const noexcept { return rep_->empty(); }
    /// @throws TOutOfRange for an index past the end.
    const std::string& operator[](std::size_t index) const;
    TRep::const_iterator begin() const noexcept { return rep_->begin(); }
    TRep::const_iterator end() const noexcept { return rep_->end(); }

    /// @param index  the index that is past the end.
    [[noreturn]] void throwTOutOfRange(std::size_t index) const;
    /// @param added  how many strings were to be added.
    [[noreturn]] void throwTOverflow(std::size_t added) const;

private:
    void check_room(std::size_t added) const;

    Handle<TRep> rep_;
};

/// An error of an argument vector, of which it holds a shared copy.
class TEArgs::TEArgsError : public TSysErr {
public:
    TEArgsError(const std::string& message, const TEArgs& args);
    const TEArgs& args() const noexcept { return args_; }

private:
    TEArgs args_;
};

class TEArgs::TOutOfRange : public TEArgsError {
public:
    TOutOfRange(const TEArgs& args, std::size_t index);
};

class TEArgs::TOverflow : public TEArgsError {
public:
    TOverflow(const TEArgs& args, std::size_t added);
};

/// The empty vector, to start from. Ready for static objects of every file that includes this one.
inline const TEArgs el;

}  // namespace tarvik::sys
