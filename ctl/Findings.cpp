#include "ctl/Findings.h"

#include <climits>

namespace tarvik::ctl {

void Findings::error(const std::string& where, const std::string& text, int line)
{
    add(Severity::Error, where, text, line);
}

void Findings::warning(const std::string& where, const std::string& text, int line)
{
    add(Severity::Warning, where, text, line);
}

std::vector<Finding> Findings::take()
{
    std::vector<Finding> all;
    for (auto& [line, finding] : findings_)
        all.push_back(std::move(finding));
    return all;
}

void Findings::add(Severity severity, const std::string& where, const std::string& text, int line)
{
    const std::string place = line == 0 ? where : where + ":" + std::to_string(line);
    if (told_.emplace(place, text).second)
        findings_.emplace(line == 0 ? INT_MAX : line, Finding {severity, place, text});
}

}  // namespace tarvik::ctl
