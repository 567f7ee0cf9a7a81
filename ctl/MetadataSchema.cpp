#include "ctl/MetadataSchema.h"

#include "ctl/Vocabulary.h"
#include "ctl/XmlNodes.h"

#include <libxml/relaxng.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <utility>

namespace tarvik::ctl {

namespace {

// All texts of a document, with its entities.
constexpr std::size_t kTextBudget = 4 * 1024 * 1024;
// The library's work on the elements of one parent grows with the square of their number.
constexpr std::size_t kMaxSiblings = 2'000;

/// A name as authors know it: with the usual prefix, which is the end of its namespace.
std::string shown(const Name& name)
{
    const std::size_t slash = name.first.rfind('/');
    const std::string last = slash == std::string::npos ? "" : name.first.substr(slash + 1);
    const bool prefixed = last == "php" || last == "cgi";
    return '"' + (prefixed ? last + ":" : "") + name.second + '"';
}

/// The same, with what the prefix does not show.
std::string spaced(const Name& name)
{
    return shown(name) + (name.first.empty() ? " of no namespace" : "");
}

bool is_mapping(const xmlNode* element)
{
    return view(element->name) == "mapping";
}

/// @return whether an element can be judged without what it stands in. In a redirect it is wrong.
bool stands_apart(const xmlNode* element)
{
    const xmlNode* const parent = element->parent;
    return is_mapping(parent) ? xmlHasProp(parent, xml_chars("virtual")) == nullptr
                              : is_mapping(element);
}

bool has_text(const xmlNode* element)
{
    const xmlNode* node = element->children;
    while (node != nullptr && (!xmlNodeIsText(node) || xmlIsBlankNode(node) != 0))
        node = node->next;
    return node != nullptr;
}

std::string alternatives(const std::vector<std::string>& values)
{
    std::string text;
    for (const std::string& value : values)
        text += (text.empty() ? "\"" : " or \"") + value + '"';
    return text;
}

bool has_references(const xmlAttr* attribute)
{
    const xmlNode* node = attribute->children;
    while (node != nullptr && node->type != XML_ENTITY_REF_NODE)
        node = node->next;
    return node != nullptr;
}

/// Puts the text of each entity in the place of its references: the library would put it together
/// at any cost.
void resolve_entities(xmlNode* element, XmlBudget& budget)
{
    for (xmlAttr* const attribute : attributes_of(element)) {
        if (!has_references(attribute))
            continue;
        const std::string value = text_of(attribute, budget);
        required(xmlSetNsProp(element, attribute->ns, attribute->name, xml_chars(value)));
    }
    for (xmlNode *node = element->children, *next = nullptr; node != nullptr; node = next) {
        next = node->next;
        if (node->type == XML_ELEMENT_NODE)
            resolve_entities(node, budget);
        if (node->type != XML_ENTITY_REF_NODE)
            continue;
        const xmlEntity* const entity = xmlGetDocEntity(node->doc, node->name);
        const std::string text = entity == nullptr ? "" : text_of(entity, budget);
        const Node reference(node);
        xmlReplaceNode(node, required(xmlNewDocText(node->doc, xml_chars(text))));
    }
}

/// What stands in a mapping, without what stands in that, or the rest of the document. What is
/// validated by itself is told where it is wrong and hides nothing else that is.
struct Part {
    xmlNode* element;
    bool faulty;  ///< so its names and values say already
};

/// Holds names and values against those of the schema.
class NameCheck {
public:
    NameCheck(const Vocabulary& vocabulary, std::vector<SchemaError>& errors)
        : vocabulary_(vocabulary), errors_(errors)
    {
    }

    /// @return the parts, each after the one that it lies in.
    std::vector<Part> run(xmlNode* root)
    {
        parts_.push_back({root, false});
        check(root, *vocabulary_.find(name_of(root)), 0);
        return std::move(parts_);
    }

private:
    void check(xmlNode* element, const Pattern& pattern, std::size_t part)
    {
        const std::string own = shown(name_of(element));
        check_value(element, element, own, pattern.values, part);
        if (pattern.values.empty() && !pattern.text && has_text(element))
            tell(part, element, own + " has text, which means nothing");
        for (const xmlAttr* const attribute : attributes_of(element))
            check_attribute(element, attribute, pattern, part);
        for (xmlNode* const child : elements_in(element)) {
            const Name name = name_of(child);
            if (!vocabulary_.owns(name.first))
                continue;
            if (pattern.elements.count(name) == 0) {
                tell(part, child,
                     vocabulary_.find(name) != nullptr ? shown(name) + " means nothing in " + own
                                                       : "unknown element " + spaced(name));
                continue;
            }
            const bool apart = stands_apart(child);
            if (apart)
                parts_.push_back({child, false});
            check(child, *vocabulary_.find(name), apart ? parts_.size() - 1 : part);
        }
    }

    void check_attribute(const xmlNode* element, const xmlAttr* attribute, const Pattern& pattern,
                         std::size_t part)
    {
        const Name name = name_of(attribute);
        const std::string what = shown(name) + " of " + shown(name_of(element));
        const auto known = pattern.attributes.find(name.second);
        if (name.first.empty() && known != pattern.attributes.end())
            check_value(element, attribute, what, known->second, part);
        else if (vocabulary_.owns(name.first))
            tell(part, element, "unknown attribute " + what);
    }

    template <class T>
    void check_value(const xmlNode* element, const T* holder, const std::string& what,
                     const std::vector<std::string>& values, std::size_t part)
    {
        if (values.empty())
            return;
        XmlBudget budget(kTextBudget);
        const std::string value = text_of(holder, budget);
        if (std::find(values.begin(), values.end(), value) == values.end())
            tell(part, element, what + " is \"" + value + "\", not " + alternatives(values));
    }

    void tell(std::size_t part, const xmlNode* node, std::string text)
    {
        errors_.push_back({line_of(node), std::move(text)});
        parts_[part].faulty = true;
    }

    const Vocabulary& vocabulary_;
    std::vector<SchemaError>& errors_;
    std::vector<Part> parts_;
};

bool is_crowded(const xmlNode* element)
{
    const std::vector<xmlNode*> children = elements_in(element);
    return children.size() > kMaxSiblings
        || std::any_of(children.begin(), children.end(), is_crowded);
}

/// The library's own judgement.
class Validation {
public:
    explicit Validation(const xmlDoc& schema)
    {
        const std::unique_ptr<xmlRelaxNGParserCtxt, FreeWith<xmlRelaxNGFreeParserCtxt>> parser(
            required(xmlRelaxNGNewDocParserCtxt(const_cast<xmlDoc*>(&schema))));
        schema_.reset(required(xmlRelaxNGParse(parser.get())));
    }

    /// @return whether a document is valid. @param complaint  receives the first one otherwise.
    bool accepts(xmlDoc* document, std::string& complaint)
    {
        const std::unique_ptr<xmlRelaxNGValidCtxt, FreeWith<xmlRelaxNGFreeValidCtxt>> context(
            required(xmlRelaxNGNewValidCtxt(schema_.get())));
        xmlRelaxNGSetValidStructuredErrors(context.get(), keep_first, &complaint);
        const int status = xmlRelaxNGValidateDoc(context.get(), document);
        XmlSilence::require_memory();
        return status == 0;
    }

private:
    static void keep_first(void* kept, xmlError* error)
    try {
        auto& first = *static_cast<std::string*>(kept);
        if (!first.empty() || error->message == nullptr)
            return;
        first = error->message;
        first.erase(first.find_last_not_of('\n') + 1);
    } catch (...) {
        // then there is no text
    }

    std::unique_ptr<xmlRelaxNG, FreeWith<xmlRelaxNGFree>> schema_;
};

/// @return a package with nothing but a mapping, its last element, for something to be put in.
Node make_frame(xmlDoc& document, xmlNs* space)
{
    const auto element = [&](const char* name) {
        return required(xmlNewDocNode(&document, space, xml_chars(name), nullptr));
    };
    Node frame(element("application"));
    for (const char* const name : {"name", "version", "release", "mapping"})
        required(xmlAddChild(frame.get(), element(name)));
    required(xmlNewProp(frame->last, xml_chars("url"), xml_chars("")));
    return frame;
}

void validate(xmlDoc& document, const std::vector<Part>& parts, const xmlDoc& schema,
              std::vector<SchemaError>& errors)
{
    Validation validation(schema);
    const auto judge = [&](const Part& part) {
        std::string complaint;
        if (part.faulty)
            return;
        if (is_crowded(part.element))
            errors.push_back({line_of(part.element), "too many elements side by side"});
        else if (!validation.accepts(&document, complaint))
            // The library's words are good for what comes once or not at all.
            errors.push_back({line_of(part.element),
                              &part == &parts.front() ? complaint
                                                      : shown(name_of(part.element))
                                      + " lacks something, or has what does not go together"});
    };
    xmlNode* const root = parts.front().element;
    Node frame = make_frame(document, root->ns);
    Node whole(xmlDocSetRootElement(&document, frame.get()));
    xmlNode* const place = frame.release()->last;  // the frame is the document's now
    for (std::size_t i = parts.size(); --i > 0;) {
        xmlUnlinkNode(parts[i].element);
        const Node part(parts[i].element);
        required(xmlAddChild(place, part.get()));
        judge(parts[i]);
    }
    frame.reset(xmlDocSetRootElement(&document, whole.release()));
    judge(parts.front());
}

}  // namespace

std::vector<SchemaError> schema_errors(XmlDoc document)
try {
    const XmlSilence silence;
    const XmlDoc schema(required(read_xml_tree(xml_source(kMetadataSchema)).release()));
    const Vocabulary vocabulary(*schema);
    xmlNode* const root = xmlDocGetRootElement(document.get());
    XmlBudget budget(kTextBudget);
    resolve_entities(root, budget);
    if (vocabulary.top().elements.count(name_of(root)) == 0)
        return {{line_of(root), "this is no package: it begins with " + spaced(name_of(root))}};

    std::vector<SchemaError> errors;
    const std::vector<Part> parts = NameCheck(vocabulary, errors).run(root);
    validate(*document, parts, *schema, errors);
    std::stable_sort(errors.begin(), errors.end(),
                     [](const auto& a, const auto& b) { return a.line < b.line; });
    return errors;
} catch (const XmlBudgetExceeded&) {
    return {{0, "too much text, with all entities substituted"}};
}

}  // namespace tarvik::ctl
