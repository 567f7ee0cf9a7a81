#include "ctl/Vocabulary.h"

namespace tarvik::ctl {

namespace {

constexpr std::size_t kSchemaText = 64 * 1024;

}  // namespace

Vocabulary::Vocabulary(const xmlDoc& schema) : budget_(kSchemaText)
{
    const xmlNode* const grammar = xmlDocGetRootElement(&schema);
    namespace_ = attribute(grammar, "ns").value_or("");
    for (const xmlNode* node : elements_in(grammar))
        defined_.emplace(attribute(node, "name").value_or(""), node);
    gather(grammar, top_);
}

const Pattern* Vocabulary::find(const Name& name) const
{
    const auto found = patterns_.find(name);
    return found == patterns_.end() ? nullptr : &found->second;
}

bool Vocabulary::owns(const std::string& space) const
{
    return space.empty() || owned_.count(space) != 0;
}

std::optional<std::string> Vocabulary::attribute(const xmlNode* node, const char* name)
{
    return xml_attribute(node, name, budget_);
}

void Vocabulary::gather(const xmlNode* from, Pattern& into)
{
    for (const xmlNode* node : elements_in(from)) {
        const std::string kind(view(node->name));
        const auto name = attribute(node, "name");
        if (kind == "ref")
            gather(defined_.at(*name), into);
        else if (kind == "value")
            into.values.push_back(text_of(node, budget_));
        else if (kind == "text" || kind == "data")
            into.text = true;
        else if (kind == "element" && name)
            gather_element(node, *name, into);
        else if (kind == "attribute" && name)
            gather_attribute(node, *name, into);
        else if (kind != "define" && kind != "element" && kind != "attribute")
            gather(node, into);  // how often and in which order is for the library to judge
    }
}

void Vocabulary::gather_element(const xmlNode* node, const std::string& name, Pattern& into)
{
    const Name full = {attribute(node, "ns").value_or(namespace_), name};
    into.elements.insert(full);
    owned_.insert(full.first);
    const auto [place, added] = patterns_.emplace(full, Pattern());
    if (added)
        gather(node, place->second);
}

void Vocabulary::gather_attribute(const xmlNode* node, const std::string& name, Pattern& into)
{
    Pattern value;
    gather(node, value);
    into.attributes[name] = value.values;
}

}  // namespace tarvik::ctl
