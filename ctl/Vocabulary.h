#pragma once

#include "ctl/XmlNodes.h"

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace tarvik::ctl {

/// What the schema lets an element have, its place and number aside.
struct Pattern {
    std::map<std::string, std::vector<std::string>> attributes;  ///< with the values, unless free
    std::set<Name> elements;
    bool text = false;
    std::vector<std::string> values;  ///< none when the text is free
};

/// All names of a RELAX NG schema, gathered from it.
class Vocabulary {
public:
    /// @param schema  with a name for each pattern that others refer to.
    explicit Vocabulary(const xmlDoc& schema);

    /// What a document may begin with.
    const Pattern& top() const { return top_; }
    /// @return what the element of that name may have; null when there is none.
    const Pattern* find(const Name& name) const;
    /// @return whether nobody but the schema may have names there: its own namespaces, and none,
    ///         where a prefix was forgotten.
    bool owns(const std::string& space) const;

private:
    std::optional<std::string> attribute(const xmlNode* node, const char* name);
    void gather(const xmlNode* from, Pattern& into);
    void gather_element(const xmlNode* node, const std::string& name, Pattern& into);
    void gather_attribute(const xmlNode* node, const std::string& name, Pattern& into);

    XmlBudget budget_;
    std::string namespace_;
    std::map<std::string, const xmlNode*> defined_;
    Pattern top_;
    std::map<Name, Pattern> patterns_;
    std::set<std::string> owned_;
};

}  // namespace tarvik::ctl
