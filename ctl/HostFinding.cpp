#include "ctl/HostFinding.h"

#include <algorithm>
#include <cctype>

namespace tarvik::ctl {

void append(HostFindings& findings, const HostFindings& more)
{
    findings.insert(findings.end(), more.begin(), more.end());
}

std::string shell_word(const std::string& text)
{
    const bool plain = !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) {
        return std::isalnum(c) != 0 || std::string("/._-+:,=@").find(c) != std::string::npos;
    });
    if (plain)
        return text;
    std::string word = "'";
    for (const char character : text)
        word += character == '\'' ? "'\\''" : std::string(1, character);
    return word + "'";
}

}  // namespace tarvik::ctl
