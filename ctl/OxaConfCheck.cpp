#include "ctl/OxaConfCheck.h"

#include "clib/read_configuration.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <string>

namespace tarvik::ctl {

namespace {

struct Line {
    std::string text;  ///< with its newline, if it has one
    conf_line_kind kind;
    std::string key, value;
    std::size_t again = 0;  ///< number of a later line with the same key
};

bool is_known(const std::string& key)
{
    // The first and the last are no keys.
    return std::any_of(theOxaConfNames.begin() + 1, theOxaConfNames.end() - 1,
                       [&key](const char* name) { return key == name; });
}

bool has_final_white(const std::string& value)
{
    return !value.empty() && std::strchr(" \t\n\v\f\r", value.back()) != nullptr;
}

/// A mistake in a line. The first one that a line has is reported.
struct Mistake {
    bool (*made)(const Line&);
    const char* what;
    const char* cure;  ///< for sed -E
};

constexpr char kNoEffect[] = "s/^/#/";

constexpr Mistake kMistakes[] = {
    {[](const Line& line) {
         return line.kind == CONF_LINE_NO_SEPARATOR && line.text.find('=') != std::string::npos;
     },
     "is skipped: blanks separate a key from its value, no \"=\"",
     "s/[[:space:]]*=[[:space:]]*/ /"},
    {[](const Line& line) {
         return line.kind == CONF_LINE_NO_SEPARATOR || line.kind == CONF_LINE_NO_VALUE;
     },
     "is skipped: it has no key and value", kNoEffect},
    {[](const Line& line) { return line.kind != CONF_LINE_EMPTY && !is_known(line.key); },
     "has a key that is not known", kNoEffect},
    {[](const Line& line) { return line.again != 0; }, "has no effect: its key comes again",
     kNoEffect},
    {[](const Line& line) { return !line.value.empty() && line.value.front() == '='; },
     "has an \"=\" as part of its value", "s/[[:space:]]*=[[:space:]]*/ /"},
    {[](const Line& line) { return line.value.find('"') != std::string::npos; },
     "has quotes as part of its value", "s/\"//g"},
    {[](const Line& line) {
         return has_final_white(line.value) && line.text.find('#') != std::string::npos;
     },
     "has blanks as part of its value", "s/[[:space:]]+#/ #/"},
    {[](const Line& line) { return has_final_white(line.value); },
     "has blanks, or another system's line end, as part of its value", "s/[[:space:]]+$//"},
    {[](const Line& line) {
         return !line.value.empty() && line.value.front() == '/'
             && ::access(line.value.c_str(), F_OK) != 0;
     },
     "names a path that does not exist", kNoEffect},
};

Line line_of(const std::string& text)
{
    std::string copy = text;
    const conf_line parsed = conf_parse_line(copy.data());
    Line line = {text, parsed.kind, "", ""};
    if (parsed.kind == CONF_LINE_DEFINITION) {
        line.key = parsed.name;
        line.value = parsed.value;
    }
    return line;
}

std::vector<Line> read_lines(std::istream& file)
{
    std::vector<Line> lines;
    std::map<std::string, std::size_t> earlier;  // indexes
    for (std::string text; std::getline(file, text);) {
        lines.push_back(line_of(text + (file.eof() ? "" : "\n")));
        if (lines.back().kind != CONF_LINE_DEFINITION)
            continue;
        const auto [known, first] = earlier.try_emplace(lines.back().key, lines.size() - 1);
        if (!first) {
            lines[known->second].again = lines.size();
            known->second = lines.size() - 1;
        }
    }
    return lines;
}

HostFindings look_at_lines(const std::vector<Line>& lines)
{
    HostFindings findings;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const auto* const mistake =
            std::find_if(std::begin(kMistakes), std::end(kMistakes),
                         [&](const Mistake& candidate) { return candidate.made(lines[i]); });
        if (mistake == std::end(kMistakes))
            continue;
        const std::string number = std::to_string(i + 1);
        const std::string& text = lines[i].text;
        findings.push_back(
            {"line " + number + " of " + theOxaConfFile + " " + mistake->what + ": "
                 + text.substr(0, text.find('\n')),
             "sed -i -E " + shell_word(number + mistake->cure) + " " + theOxaConfFile});
    }
    return findings;
}

/// A directory can be opened, but not read.
HostFinding unreadable()
{
    const std::string path = theOxaConfFile;
    return {path + " cannot be read", "mv " + path + " " + path + ".old"};
}

}  // namespace

HostFindings look_at_oxa_conf()
{
    struct stat status;
    if (::stat(theOxaConfFile, &status) != 0 && errno == ENOENT)
        return {};
    std::ifstream file(theOxaConfFile, std::ios::binary);
    if (!file)
        return {unreadable()};
    HostFindings findings = look_at_lines(read_lines(file));
    if (file.bad())
        findings.push_back(unreadable());
    if (status.st_uid != 0 || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0)
        findings.push_back(
            {std::string(theOxaConfFile) + " can be changed by others than root",
             std::string("chown root ") + theOxaConfFile + " && chmod go-w " + theOxaConfFile});
    return findings;
}

}  // namespace tarvik::ctl
