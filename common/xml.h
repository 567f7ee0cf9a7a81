#pragma once

#include "common/XmlSilence.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

struct _xmlDoc;
struct _xmlNode;
struct _xmlAttr;

/**
 * Reading XML that may be hostile, with the rights of root. Whatever is read here opens no other
 * file and no connection, prints nothing, and is refused once it costs more than its size can
 * justify: libxml2's own limits leave room for documents of some kilobytes that take gigabytes or
 * minutes.
 *
 * With root's rights a document may be in UTF-8, UTF-16, ASCII, ISO 8859, Windows 125x or KOI8-R/U:
 * any other encoding is refused, as it would have the system load a conversion module. Without them
 * it may be in whatever libxml2 and the system know.
 */
namespace tarvik {

/// Raised when a document asks for more work than the budget allows.
class XmlBudgetExceeded : public std::runtime_error {
public:
    XmlBudgetExceeded() : std::runtime_error("XML document too expensive") { }
};

/// Work left to spend on one document: one unit is a byte of text or a visited node.
class XmlBudget {
public:
    explicit XmlBudget(std::size_t units) : left_(units) { }
    /// @throws XmlBudgetExceeded when fewer units are left.
    void spend(std::size_t units);

private:
    std::size_t left_;
};

/// Fills a buffer with the next bytes of a document; returns their number, 0 at its end, -1 on
/// error.
using XmlSource = std::function<int(char* buffer, int size)>;

struct FreeXmlDoc {
    void operator()(_xmlDoc* document) const noexcept;
};
using XmlDoc = std::unique_ptr<_xmlDoc, FreeXmlDoc>;

/// Bytes of the longest document that is read into a tree.
constexpr std::size_t kMaxXmlTreeBytes = 16 * 1024 * 1024;

/// Why a document was refused, for whoever has written it.
struct XmlProblem {
    int line = 0;
    std::string text;  ///< in the library's words where it found the document not well-formed
};

/**
 * Reads a document into a tree. Entity references stay references, so the tree is never larger
 * than the text; comments and processing instructions are left out.
 * @param problem  receives what is wrong with a document that is refused; may be null.
 * @return the tree; null when the document is not well-formed, cannot be read or costs too much.
 * @throws std::bad_alloc
 */
XmlDoc read_xml_tree(XmlSource source, XmlProblem* problem = nullptr);

/// @return a source over `text`, which it borrows.
XmlSource xml_source(std::string_view text);

/**
 * @param node  an element; null gives an empty text.
 * @return all descendant text joined, entity references substituted.
 * @throws XmlBudgetExceeded when substituting takes more than `budget` has left.
 */
std::string xml_text(const _xmlNode* node, XmlBudget& budget);

/// @return the value of an attribute in no namespace, or nothing. Throws as `xml_text` does.
std::optional<std::string> xml_attribute(const _xmlNode* element, const char* name,
                                         XmlBudget& budget);

/// The attributes of one start tag; borrows from the parser during the call.
class XmlAttributes {
public:
    XmlAttributes(const unsigned char** values, int count) : values_(values), count_(count) { }
    /// @return the value of the attribute of that name in no namespace.
    std::optional<std::string_view> find(std::string_view name) const;

private:
    const unsigned char** values_;
    int count_;
};

/// Receives a document piece by piece. What it throws ends the reading and reaches the caller.
class XmlVisitor {
public:
    virtual ~XmlVisitor() = default;
    virtual void start_element(std::string_view localName, const XmlAttributes& attributes) = 0;
    virtual void end_element() = 0;
    virtual void text(std::string_view piece) = 0;
    /// A comment or processing instruction.
    virtual void other_node() = 0;
    /// A document type declaration. @return false to read no further.
    virtual bool document_type() = 0;
};

/// How a reading ended.
enum class XmlEnd { WellFormed, Malformed, Stopped };

/// Reads a document of any length without building a tree. Throws also `std::bad_alloc`.
XmlEnd visit_xml(XmlSource source, XmlVisitor& visitor);

}  // namespace tarvik
