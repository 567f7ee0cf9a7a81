#pragma once

#include <cstddef>
#include <initializer_list>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

/// What people read: aligned and coloured on a terminal, plain lines for everything else.
namespace tarvik::ctl {

/**
 * @return a text as it may go to a terminal and into a log: what is not UTF-8, control characters
 *         and those that turn the direction of writing as "\xNN", a backslash doubled.
 */
std::string printable(std::string_view text);

bool is_utf8(std::string_view text);

/// What a line means, shown as a colour.
enum class Tone { Plain, Good, Notice, Bad };

/**
 * Lines of cells on standard output. On a terminal they are aligned, which takes all of them, and
 * coloured unless NO_COLOR is set; elsewhere each line is written at once, its cells with a blank
 * between. Put a name last: it may have blanks.
 */
class Rows {
public:
    Rows();
    Rows(const Rows&) = delete;
    Rows& operator=(const Rows&) = delete;
    ~Rows();

    /// @param cells  shown as `printable` has them.
    void add(std::initializer_list<std::string_view> cells, Tone tone = Tone::Plain);

private:
    struct Row {
        std::vector<std::string> cells;
        Tone tone;
    };

    bool aligned_;
    std::vector<Row> rows_;
    std::string line_;
};

/**
 * A line about long work, on standard error if that is a terminal, overwritten by the next one and
 * gone when the work is done. Work that is over at once shows nothing.
 */
class Progress {
public:
    /// @param what  such as "Comparing". @param total  how many steps there are.
    Progress(const char* what, std::size_t total);
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress();

    /// @param done  how many steps are.
    void show(std::size_t done);

private:
    const char* what_;
    std::size_t total_;
    std::size_t shown_ = 0;  ///< steps when the line was last written
    const bool terminal_;
};

}  // namespace tarvik::ctl
