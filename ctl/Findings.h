#pragma once

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace tarvik::ctl {

enum class Severity {
    Error,    ///< a mistake: it is refused, fails, or does not do what it says
    Warning,  ///< works, but mostly not as it was meant
};

struct Finding {
    Severity severity;
    std::string where;  ///< "APP-META.xml:12", or a path, in the package unless it is absolute
    std::string text;
};

/// Collects findings, each once.
class Findings {
public:
    /// @param line  in the file; 0 when there is none to name.
    void error(const std::string& where, const std::string& text, int line = 0);
    void warning(const std::string& where, const std::string& text, int line = 0);
    bool empty() const { return findings_.empty(); }
    /// @return those with a line first, by line, the others in the order in which they were found.
    std::vector<Finding> take();

private:
    void add(Severity severity, const std::string& where, const std::string& text, int line);

    std::multimap<int, Finding> findings_;  ///< by line
    std::set<std::pair<std::string, std::string>> told_;
};

}  // namespace tarvik::ctl
