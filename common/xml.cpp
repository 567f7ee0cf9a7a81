#include "common/xml.h"

#include "common/XmlReading.h"

#include <libxml/SAX2.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace tarvik {

namespace {

constexpr int kMaxTextDepth = 2'000;

/// For `sax.serror`: where it is set, no other handler hears of what is wrong with a document.
void end_at_fatal_error(void*, xmlError* error)
{
    const auto* const parser = static_cast<xmlParserCtxt*>(error->ctxt);
    if (error->level == XML_ERR_FATAL && parser->_private != nullptr)
        XmlReading::at(error->ctxt).refuse(*error);
}

/// The library's tree builder, each step counted first.
xmlSAXHandler tree_handler()
{
    xmlSAXHandler sax = {};
    xmlSAXVersion(&sax, 2);
    sax.serror = end_at_fatal_error;
    sax.getEntity = [](void* context, const xmlChar* name) {
        return XmlReading::at(context).reference(xmlSAX2GetEntity(context, name));
    };
    sax.getParameterEntity = [](void* context, const xmlChar* name) {
        return XmlReading::at(context).parameter_reference(
            xmlSAX2GetParameterEntity(context, name));
    };
    sax.startElementNs = [](void* context, const xmlChar* name, const xmlChar* prefix,
                            const xmlChar* uri, int namespaceCount, const xmlChar** namespaces,
                            int attributeCount, int defaultedCount, const xmlChar** attributes) {
        if (XmlReading::at(context).start_tag(namespaceCount, attributeCount))
            xmlSAX2StartElementNs(context, name, prefix, uri, namespaceCount, namespaces,
                                  attributeCount, defaultedCount, attributes);
    };
    sax.endElementNs = [](void* context, const xmlChar* name, const xmlChar* prefix,
                          const xmlChar* uri) {
        if (XmlReading::at(context).end_tag())
            xmlSAX2EndElementNs(context, name, prefix, uri);
    };
    sax.characters = [](void* context, const xmlChar* text, int length) {
        if (XmlReading::at(context).event(1))
            xmlSAX2Characters(context, text, length);
    };
    sax.ignorableWhitespace = sax.characters;
    sax.cdataBlock = [](void* context, const xmlChar* text, int length) {
        if (XmlReading::at(context).event(1))
            xmlSAX2CDataBlock(context, text, length);
    };
    sax.reference = [](void* context, const xmlChar* name) {
        if (XmlReading::at(context).event(1))
            xmlSAX2Reference(context, name);
    };
    sax.comment = [](void* context, const xmlChar*) { XmlReading::at(context).event(); };
    sax.processingInstruction = [](void* context, const xmlChar*, const xmlChar*) {
        XmlReading::at(context).event();
    };
    sax.entityDecl = [](void* context, const xmlChar* name, int type, const xmlChar* publicId,
                        const xmlChar* systemId, xmlChar* content) {
        if (XmlReading::at(context).event(1, 1))
            xmlSAX2EntityDecl(context, name, type, publicId, systemId, content);
    };
    sax.attributeDecl = [](void* context, const xmlChar* element, const xmlChar* name, int type,
                           int def, const xmlChar* value, xmlEnumeration* tree) {
        if (XmlReading::at(context).values(tree))
            xmlSAX2AttributeDecl(context, element, name, type, def, value, tree);
        else
            xmlFreeEnumeration(tree);
    };
    sax.elementDecl = [](void* context, const xmlChar* name, int type, xmlElementContent* content) {
        if (XmlReading::at(context).event(1, 1))
            xmlSAX2ElementDecl(context, name, type, content);
    };
    return sax;
}

/// Passes the document on to a visitor; builds nothing.
xmlSAXHandler visitor_handler()
{
    xmlSAXHandler sax = {};
    sax.initialized = XML_SAX2_MAGIC;
    sax.serror = end_at_fatal_error;
    sax.internalSubset = [](void* context, const xmlChar*, const xmlChar*, const xmlChar*) {
        XmlReading& reading = XmlReading::at(context);
        reading.visit([&reading](XmlVisitor& visitor) {
            if (!visitor.document_type())
                reading.stop();
        });
    };
    sax.startElementNs = [](void* context, const xmlChar* name, const xmlChar* prefix,
                            const xmlChar* uri, int namespaceCount, const xmlChar**,
                            int attributeCount, int, const xmlChar** attributes) {
        XmlReading& reading = XmlReading::at(context);
        if (!reading.start_tag(namespaceCount, attributeCount))
            return;
        reading.visit([&](XmlVisitor& visitor) {
            // Without a declaration the prefix is part of the name.
            const bool unresolved = prefix != nullptr && uri == nullptr;
            const std::string qualified =
                unresolved ? std::string(view(prefix)) + ":" + std::string(view(name)) : "";
            visitor.start_element(unresolved ? qualified : view(name),
                                  XmlAttributes(attributes, attributeCount));
        });
    };
    sax.endElementNs = [](void* context, const xmlChar*, const xmlChar*, const xmlChar*) {
        XmlReading& reading = XmlReading::at(context);
        if (reading.end_tag())
            reading.visit([](XmlVisitor& visitor) { visitor.end_element(); });
    };
    sax.characters = [](void* context, const xmlChar* text, int length) {
        XmlReading::at(context).visit([text, length](XmlVisitor& visitor) {
            visitor.text({reinterpret_cast<const char*>(text), static_cast<std::size_t>(length)});
        });
    };
    sax.ignorableWhitespace = sax.characters;
    sax.cdataBlock = sax.characters;
    sax.comment = [](void* context, const xmlChar*) {
        XmlReading::at(context).visit([](XmlVisitor& visitor) { visitor.other_node(); });
    };
    sax.processingInstruction = [](void* context, const xmlChar*, const xmlChar*) {
        XmlReading::at(context).visit([](XmlVisitor& visitor) { visitor.other_node(); });
    };
    return sax;
}

/// Joins the text of a list of siblings. Entities may name each other, so the depth is bounded too.
void append_text(std::string& text, const xmlNode* node, XmlBudget& budget, int depth = 0)
{
    if (depth > kMaxTextDepth)
        throw XmlBudgetExceeded();
    for (; node != nullptr; node = node->next) {
        budget.spend(1);
        switch (node->type) {
        case XML_TEXT_NODE:
        case XML_CDATA_SECTION_NODE:
            budget.spend(view(node->content).size());
            text += view(node->content);
            break;
        case XML_ENTITY_REF_NODE:
            if (const xmlEntity* const entity = xmlGetDocEntity(node->doc, node->name))
                append_text(text, entity->children, budget, depth + 1);
            break;
        case XML_ELEMENT_NODE:
            append_text(text, node->children, budget, depth + 1);
            break;
        default:
            break;
        }
    }
}

}  // namespace

void XmlBudget::spend(std::size_t units)
{
    if (units > left_)
        throw XmlBudgetExceeded();
    left_ -= units;
}

void FreeXmlDoc::operator()(_xmlDoc* document) const noexcept
{
    xmlFreeDoc(document);
}

XmlDoc read_xml_tree(XmlSource source, XmlProblem* problem)
{
    const XmlSilence silence;
    XmlReading reading(std::move(source), tree_handler(), XML_PARSE_BIG_LINES, nullptr);
    if (reading.run() == XmlEnd::WellFormed)
        return reading.take_tree();
    if (problem != nullptr)
        *problem = reading.problem();
    return nullptr;
}

XmlSource xml_source(std::string_view text)
{
    return [text](char* buffer, int size) mutable {
        const std::size_t count = std::min(text.size(), static_cast<std::size_t>(size));
        std::memcpy(buffer, text.data(), count);
        text.remove_prefix(count);
        return static_cast<int>(count);
    };
}

std::string xml_text(const _xmlNode* node, XmlBudget& budget)
{
    std::string text;
    if (node != nullptr)
        append_text(text, node->children, budget);
    return text;
}

std::optional<std::string> xml_attribute(const _xmlNode* element, const char* name,
                                         XmlBudget& budget)
{
    const xmlAttr* const attribute = xmlHasNsProp(const_cast<xmlNode*>(element),
                                                  reinterpret_cast<const xmlChar*>(name), nullptr);
    XmlSilence::require_memory();
    if (attribute == nullptr)
        return std::nullopt;
    std::string value;
    if (attribute->type == XML_ATTRIBUTE_DECL) {  // the default that the document type gives
        value = view(reinterpret_cast<const xmlAttribute*>(attribute)->defaultValue);
        budget.spend(value.size());
    } else {
        append_text(value, attribute->children, budget);
    }
    return value;
}

std::optional<std::string_view> XmlAttributes::find(std::string_view name) const
{
    // Five pointers an attribute: local name, prefix, URI, start and end of the value.
    for (const xmlChar** attribute = values_; attribute != values_ + 5 * count_; attribute += 5) {
        if (attribute[1] == nullptr && view(attribute[0]) == name) {
            const char* const value = reinterpret_cast<const char*>(attribute[3]);
            return std::string_view(value, static_cast<std::size_t>(attribute[4] - attribute[3]));
        }
    }
    return std::nullopt;
}

XmlEnd visit_xml(XmlSource source, XmlVisitor& visitor)
{
    const XmlSilence silence;
    XmlReading reading(std::move(source), visitor_handler(), XML_PARSE_NOENT, &visitor);
    return reading.run();
}

}  // namespace tarvik
