#pragma once

#include "common/xml.h"

#include <libxml/tree.h>

#include <algorithm>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// The library's trees, for who takes them apart. XmlSilence has to be there meanwhile.
namespace tarvik::ctl {

inline std::string_view view(const xmlChar* text)
{
    return text == nullptr ? std::string_view() : reinterpret_cast<const char*>(text);
}

inline const xmlChar* xml_chars(const std::string& text)
{
    return reinterpret_cast<const xmlChar*>(text.c_str());
}

/// @return what the library has made. @throws std::bad_alloc when it could not.
template <class T>
T* required(T* made)
{
    XmlSilence::require_memory();
    if (made == nullptr)
        throw std::bad_alloc();
    return made;
}

/// Has one of the library's functions release what a unique_ptr owns.
template <auto Free>
struct FreeWith {
    template <class T>
    void operator()(T* owned) const
    {
        Free(owned);
    }
};

/// Owns an element also while it stands in a document.
struct FreeNode {
    void operator()(xmlNode* node) const
    {
        xmlUnlinkNode(node);
        xmlFreeNode(node);
    }
};
using Node = std::unique_ptr<xmlNode, FreeNode>;

/// What an attribute and an entity have in common with an element is what holds their text.
template <class T>
std::string text_of(const T* node, XmlBudget& budget)
{
    return xml_text(reinterpret_cast<const xmlNode*>(node), budget);
}

inline std::vector<xmlNode*> elements_in(const xmlNode* parent)
{
    std::vector<xmlNode*> elements;
    for (xmlNode* node = parent->children; node != nullptr; node = node->next) {
        if (node->type == XML_ELEMENT_NODE)
            elements.push_back(node);
    }
    return elements;
}

inline std::vector<xmlAttr*> attributes_of(const xmlNode* element)
{
    std::vector<xmlAttr*> attributes;
    for (xmlAttr* next = element->properties; next != nullptr; next = next->next)
        attributes.push_back(next);
    return attributes;
}

/// @return 0 when it is not known.
inline int line_of(const xmlNode* node)
{
    return std::max(static_cast<int>(xmlGetLineNo(const_cast<xmlNode*>(node))), 0);
}

/// A namespace and a local name.
using Name = std::pair<std::string, std::string>;

template <class T>
Name name_of(const T* node)
{
    return {std::string(node->ns == nullptr ? "" : view(node->ns->href)),
            std::string(view(node->name))};
}

}  // namespace tarvik::ctl
