#include "sys/TEArgs.h"

#include <memory>

namespace tarvik::sys {

namespace {

constexpr std::size_t kMaxStrings = 100;
constexpr std::size_t kUsualStrings = 10;

}  // namespace

TEArgs::TEArgs() : rep_(std::make_unique<TRep>())
{
    rep_->reserve(kUsualStrings);
}

TEArgs::TEArgs(std::initializer_list<std::string> strings) : TEArgs()
{
    check_room(strings.size());
    rep_->assign(strings);
}

void TEArgs::push_back(const TEArgs& other)
{
    check_room(other.size());
    const Handle<TRep> added = other.rep_;  // held, so that a vector appended to itself is shared
    if (rep_.count() > 1)
        rep_ = Handle<TRep>(std::make_unique<TRep>(*rep_));
    rep_->insert(rep_->end(), added->begin(), added->end());
}

const std::string& TEArgs::operator[](std::size_t index) const
{
    if (index >= size())
        throwTOutOfRange(index);
    return (*rep_)[index];
}

void TEArgs::check_room(std::size_t added) const
{
    if (size() + added > kMaxStrings)
        throwTOverflow(added);
}

void TEArgs::throwTOutOfRange(std::size_t index) const
{
    throw TOutOfRange(*this, index);
}

void TEArgs::throwTOverflow(std::size_t added) const
{
    throw TOverflow(*this, added);
}

TEArgs::TEArgsError::TEArgsError(const std::string& message, const TEArgs& args)
    : TSysErr(message), args_(args)
{
}

TEArgs::TOutOfRange::TOutOfRange(const TEArgs& args, std::size_t index)
    : TEArgsError(std::string(wrong_index) + " (index = " + xtos(index) + ")", args)
{
}

TEArgs::TOverflow::TOverflow(const TEArgs& args, std::size_t added)
    : TEArgsError(std::string(exceed_lim) + " (arguments number = " + xtos(args.size())
                      + ", add. arguments number = " + xtos(added) + ", max = " + xtos(kMaxStrings)
                      + ")",
                  args)
{
}

}  // namespace tarvik::sys
