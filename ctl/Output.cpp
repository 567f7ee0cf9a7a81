#include "ctl/Output.h"

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <utility>

namespace tarvik::ctl {

namespace {

constexpr std::size_t kStepsBetweenLines = 1'000;

const char* const kColours[] = {"", "\033[32m", "\033[33m", "\033[31m"};
constexpr char kNoColour[] = "\033[0m";

/// Characters that a terminal obeys, or that make a name look like another one.
constexpr std::pair<std::uint32_t, std::uint32_t> kHidden[] = {
    {0x00, 0x1f},     {0x7f, 0x9f},     {0x061c, 0x061c}, {0x200b, 0x200f},   {0x2028, 0x202e},
    {0x2060, 0x206f}, {0xfeff, 0xfeff}, {0xfff9, 0xfffb}, {0xe0000, 0xe007f},
};

bool is_hidden(std::uint32_t character)
{
    return std::any_of(std::begin(kHidden), std::end(kHidden), [character](const auto& range) {
        return character >= range.first && character <= range.second;
    });
}

struct Character {
    std::uint32_t number;
    std::size_t length;  ///< in bytes; 0 for what is not UTF-8
};

/// The first character of a text that is not empty.
Character first_character(std::string_view text)
{
    // By the number of leading ones: the bits that the first byte has, and the least number that
    // may be written with as many bytes.
    constexpr std::pair<unsigned char, std::uint32_t> kForms[] = {
        {0x7f, 0}, {0, 0}, {0x1f, 0x80}, {0x0f, 0x800}, {0x07, 0x10000}};
    const auto byte = static_cast<unsigned char>(text.front());
    std::size_t ones = 0;
    while (ones < 8 && (byte & (0x80U >> ones)) != 0)
        ++ones;
    if (ones == 1 || ones >= std::size(kForms) || text.size() < ones)
        return {0, 0};
    std::uint32_t number = byte & kForms[ones].first;
    for (std::size_t i = 1; i < ones; ++i) {
        const auto next = static_cast<unsigned char>(text[i]);
        if ((next & 0xc0U) != 0x80)
            return {0, 0};
        number = number << 6U | (next & 0x3fU);
    }
    const bool valid =
        number >= kForms[ones].second && number <= 0x10ffff && (number < 0xd800 || number > 0xdfff);
    return {number, valid ? std::max<std::size_t>(ones, 1) : 0};
}

void append_escaped(std::string& out, std::string_view bytes)
{
    constexpr char kDigits[] = "0123456789abcdef";
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        out.append("\\x") += kDigits[value >> 4U];
        out += kDigits[value & 0x0fU];
    }
}

/// Most texts are.
bool is_plain(std::string_view text)
{
    return std::all_of(text.begin(), text.end(),
                       [](char byte) { return byte >= 0x20 && byte < 0x7f && byte != '\\'; });
}

/// The columns that a printable text takes, wide characters counted as one.
std::size_t width(const std::string& text)
{
    return static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(), [](char byte) { return (byte & 0xc0) != 0x80; }));
}

}  // namespace

std::string printable(std::string_view text)
{
    if (is_plain(text))
        return std::string(text);
    std::string out;
    while (!text.empty()) {
        const Character next = first_character(text);
        const std::size_t length = std::max<std::size_t>(next.length, 1);
        if (next.length == 0 || is_hidden(next.number))
            append_escaped(out, text.substr(0, length));
        else
            out.append(text.front() == '\\' ? "\\" : "").append(text, 0, length);
        text.remove_prefix(length);
    }
    return out;
}

bool is_utf8(std::string_view text)
{
    while (!text.empty()) {
        const std::size_t length = first_character(text).length;
        if (length == 0)
            return false;
        text.remove_prefix(length);
    }
    return true;
}

Rows::Rows() : aligned_(::isatty(STDOUT_FILENO) == 1) { }

Rows::~Rows()
{
    std::vector<std::size_t> widths;
    for (const Row& row : rows_) {
        widths.resize(std::max(widths.size(), row.cells.size()));
        for (std::size_t i = 0; i < row.cells.size(); ++i)
            widths[i] = std::max(widths[i], width(row.cells[i]));
    }
    const bool coloured = std::getenv("NO_COLOR") == nullptr;
    for (const auto& [cells, tone] : rows_) {
        const char* const colour = coloured ? kColours[static_cast<int>(tone)] : "";
        std::cout << colour;
        for (std::size_t i = 0; i < cells.size(); ++i) {
            const bool last = i + 1 == cells.size();
            std::cout << cells[i] << std::string(last ? 0 : widths[i] - width(cells[i]) + 2, ' ');
        }
        std::cout << (*colour == '\0' ? "" : kNoColour) << '\n';
    }
}

void Rows::add(std::initializer_list<std::string_view> cells, Tone tone)
{
    if (aligned_) {
        Row row = {{}, tone};
        for (const std::string_view cell : cells)
            row.cells.push_back(printable(cell));
        rows_.push_back(std::move(row));
        return;
    }
    line_.clear();
    for (const std::string_view cell : cells) {
        line_.append(line_.empty() ? "" : " ");
        is_plain(cell) ? line_.append(cell) : line_.append(printable(cell));
    }
    std::cout << (line_ += '\n');
}

Progress::Progress(const char* what, std::size_t total)
    : what_(what), total_(total), terminal_(::isatty(STDERR_FILENO) == 1)
{
}

Progress::~Progress()
{
    if (shown_ != 0)
        std::cerr << "\r\033[K" << std::flush;
}

void Progress::show(std::size_t done)
{
    if (!terminal_ || done < shown_ + kStepsBetweenLines)
        return;
    shown_ = done;
    std::cerr << '\r' << what_ << ' ' << done << " of " << total_ << "\033[K" << std::flush;
}

}  // namespace tarvik::ctl
