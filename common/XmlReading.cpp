#include "common/XmlReading.h"

#include "common/charsets.h"

#include <libxml/encoding.h>
#include <libxml/parserInternals.h>
#include <libxml/xmlerror.h>

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <new>
#include <optional>
#include <string>
#include <utility>

namespace tarvik {

namespace {

// A tree node takes up to some 250 bytes with what hangs on it.
constexpr std::size_t kMaxTreeNodes = 100'000;
// Also of what leaves no node behind: entities repeat it without a byte being read.
constexpr std::size_t kMaxTreeEvents = 500'000;
constexpr std::size_t kMaxEntityText = 16 * 1024 * 1024;
constexpr std::size_t kMaxParameterText = 256 * 1024;  // it may hold declarations
// The parser's work on one tag grows with the square of its attributes, that on one declaration
// with the square of the values it lists, that on any tag with the namespaces in scope and the
// attribute defaults declared: all are kept small.
constexpr std::size_t kMaxBytesBetweenEvents = 64 * 1024;
constexpr int kMaxAttributes = 256;
constexpr int kMaxListedValues = 1'000;
constexpr std::size_t kMaxNamespacesInScope = 64;
constexpr std::size_t kMaxDeclarations = 1'000;
// From 10,000 on the library raises an alarm and skips blanks for ever in the state that it sets.
constexpr unsigned long kMaxReferencesInDocumentType = 4'000;
constexpr char kBeyondLimits[] = "goes beyond a limit, or is in an encoding that is not read";

/**
 * @param start  the first bytes of a document, its XML declaration among them.
 * @return the encoding that it declares, the usual one without; none when the declaration is cut.
 */
std::optional<std::string> declared_encoding(std::string_view start)
{
    constexpr char kDeclaration[] = "<?xml", kUsual[] = "UTF-8";
    std::string text(start);
    text.erase(std::remove(text.begin(), text.end(), '\0'), text.end());  // of two-byte characters
    const std::size_t begin = text.find(kDeclaration);  // after a byte order mark at most
    if (begin > 3 || text.find_first_of(" \t\r\n", begin) != begin + std::strlen(kDeclaration))
        return kUsual;
    const std::size_t end = text.find("?>");
    if (end == std::string::npos)
        return std::nullopt;
    text.resize(end);
    const std::size_t open = text.find_first_of("\"'", text.find("encoding"));
    if (text.find("encoding") == std::string::npos || open == std::string::npos)
        return kUsual;
    return text.substr(open + 1, text.find(text[open], open + 1) - open - 1);
}

/// @return whether the library decodes a document that begins so without the system's help.
bool is_decoded_by_library(std::string_view start, const std::string& declared)
{
    constexpr const char* kPlain[] = {"UTF-8",    "UTF8",       "UTF-16",   "UTF-16LE",
                                      "UTF-16BE", "ISO-8859-1", "US-ASCII", "ASCII"};
    const auto* const bytes = reinterpret_cast<const unsigned char*>(start.data());
    const xmlCharEncoding family =
        start.size() < 4 ? XML_CHAR_ENCODING_NONE : xmlDetectCharEncoding(bytes, 4);
    if (family != XML_CHAR_ENCODING_NONE && family != XML_CHAR_ENCODING_UTF8
        && family != XML_CHAR_ENCODING_UTF16LE && family != XML_CHAR_ENCODING_UTF16BE)
        return false;
    return std::any_of(std::begin(kPlain), std::end(kPlain), [&declared](const char* plain) {
        return xmlStrcasecmp(reinterpret_cast<const xmlChar*>(declared.c_str()),
                             reinterpret_cast<const xmlChar*>(plain))
            == 0;
    });
}

/// An entity that is replaced with one character and never changed.
xmlEntity make_nothing()
{
    static xmlChar text[] = " ";
    xmlEntity entity = {};
    entity.type = XML_ENTITY_DECL;
    entity.etype = XML_INTERNAL_PREDEFINED_ENTITY;
    entity.name = entity.content = entity.orig = text;
    entity.length = 1;
    return entity;
}
xmlEntity nothing = make_nothing();

void erase_rest(xmlParserInput* input)
{
    constexpr std::ptrdiff_t kShared = 5;  // a shorter entity may share its text with names
    if (input->buf != nullptr || input->end - input->base >= kShared)
        std::fill(const_cast<xmlChar*>(input->cur), const_cast<xmlChar*>(input->end), '\0');
}

}  // namespace

std::string_view view(const xmlChar* text)
{
    return text == nullptr ? std::string_view() : reinterpret_cast<const char*>(text);
}

void XmlReading::FreeContext::operator()(xmlParserCtxt* context) const noexcept
{
    xmlFreeDoc(context->myDoc);  // the context does not own it, and a refused tree is nobody's
    context->myDoc = nullptr;
    xmlFreeParserCtxt(context);
}

XmlReading::XmlReading(XmlSource source, const xmlSAXHandler& handler, int options,
                       XmlVisitor* visitor)
    : source_(std::move(source)), handler_(handler), visitor_(visitor)
{
    context_.reset(xmlCreateIOParserCtxt(&handler_, nullptr, read_some, nullptr, this,
                                         XML_CHAR_ENCODING_NONE));
    if (!context_)
        throw std::bad_alloc();
    context_->_private = this;
    xmlCtxtUseOptions(context_.get(),
                      options | XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
}

XmlEnd XmlReading::run()
{
    xmlParseDocument(context_.get());
    XmlSilence::require_memory();
    if (failure_)
        std::rethrow_exception(failure_);
    if (stopped_)
        return XmlEnd::Stopped;
    if (context_->wellFormed != 0 && !refused_)
        return XmlEnd::WellFormed;
    if (problem_.text.empty())
        problem_ = {current_line(), kBeyondLimits};
    return XmlEnd::Malformed;
}

XmlDoc XmlReading::take_tree()
{
    return XmlDoc(std::exchange(context_->myDoc, nullptr));
}

XmlReading& XmlReading::at(void* context)
{
    auto* const parser = static_cast<xmlParserCtxt*>(context);
    auto& reading = *static_cast<XmlReading*>(parser->_private);
    reading.current_ = parser;
    return reading;
}

bool XmlReading::event(std::size_t nodes, std::size_t declarations)
{
    bytesSinceEvent_ = 0;
    nodes_ += nodes;
    declarations_ += declarations;
    return spend_event(nodes_ <= kMaxTreeNodes && declarations_ <= kMaxDeclarations);
}

xmlEntity* XmlReading::reference(xmlEntity* entity)
{
    return affords(entity) ? entity : &nothing;
}

xmlEntity* XmlReading::parameter_reference(xmlEntity* entity)
{
    parameterText_ += entity == nullptr ? 0 : view(entity->content).size();
    refused_ = refused_ || parameterText_ > kMaxParameterText;
    return affords(entity) ? entity : nullptr;
}

bool XmlReading::start_tag(int namespaces, int attributes)
try {
    scopes_.push_back(static_cast<std::size_t>(namespaces));
    namespacesInScope_ += scopes_.back();
    refused_ =
        refused_ || namespacesInScope_ > kMaxNamespacesInScope || attributes > kMaxAttributes;
    // An attribute is a node and holds one.
    return event(1 + scopes_.back() + 2 * static_cast<std::size_t>(attributes));
} catch (...) {
    fail();
    return false;
}

bool XmlReading::end_tag()
{
    namespacesInScope_ -= scopes_.back();
    scopes_.pop_back();
    return event();
}

bool XmlReading::values(const xmlEnumeration* value)
{
    int count = 0;
    for (; value != nullptr; value = value->next)
        ++count;
    refused_ = refused_ || count > kMaxListedValues;
    return event(1, 1);
}

void XmlReading::stop()
{
    stopped_ = true;
    halt();
}

void XmlReading::refuse(const xmlError& error)
try {
    // What follows the end of a reading is of its making.
    if (!ended() && error.message != nullptr) {
        problem_ = {error.line, error.message};
        problem_.text.erase(problem_.text.find_last_not_of('\n') + 1);
    }
    refused_ = true;
    halt();
} catch (...) {
    fail();
}

int XmlReading::read_some(void* self, char* buffer, int size)
{
    auto& reading = *static_cast<XmlReading*>(self);
    try {
        return reading.fill(buffer, static_cast<std::size_t>(size));
    } catch (...) {
        reading.failure_ = std::current_exception();
        return -1;
    }
}

int XmlReading::fill(char* buffer, std::size_t size)
{
    if (ended())
        return -1;
    const bool first = bytes_ == 0;
    const bool grows = first || encoding_ != nullptr;
    std::size_t count = read_up_to(buffer, grows ? size / kMaxUtf8Length : size);
    if (first && ::geteuid() == 0)
        choose_encoding({buffer, count});
    if (encoding_ != nullptr)
        count = decode(buffer, count);
    bytes_ += count;
    // The library takes a CDATA section in as it takes text in: at a cost in keeping with its
    // length. It only tells of it at its end.
    const bool isText = context_->instate == XML_PARSER_CDATA_SECTION;
    bytesSinceEvent_ = isText ? 0 : bytesSinceEvent_ + count;
    refused_ = refused_ || bytesSinceEvent_ > kMaxBytesBetweenEvents
        || (visitor_ == nullptr && bytes_ > kMaxXmlTreeBytes);
    return refused_ ? -1 : static_cast<int>(count);
}

/// @return the number of bytes read, less than `size` at the end of the document only.
std::size_t XmlReading::read_up_to(char* buffer, std::size_t size)
{
    std::size_t count = 0;
    for (int more = 1; more > 0 && count < size; count += static_cast<std::size_t>(more)) {
        more = source_(buffer + count, static_cast<int>(size - count));
        refused_ = refused_ || more < 0;
        more = std::max(more, 0);
    }
    return count;
}

/**
 * With root's rights no encoding is left to the system: it would load a conversion module, at
 * the wish of whoever wrote the document.
 */
void XmlReading::choose_encoding(std::string_view start)
{
    const std::optional<std::string> declared = declared_encoding(start);
    refused_ = refused_ || !declared;
    if (refused_ || is_decoded_by_library(start, *declared))
        return;
    encoding_ = find_single_byte_encoding(*declared);
    // The library would still find out by itself that characters take more than one byte.
    refused_ = encoding_ == nullptr || start.find('\0') != std::string_view::npos;
    context_->options |= XML_PARSE_IGNORE_ENC;  // the library gets UTF-8
}

/// Makes UTF-8 of what was read. The buffer has room for it.
std::size_t XmlReading::decode(char* buffer, std::size_t count)
{
    std::string utf8;
    refused_ = refused_ || !append_as_utf8(utf8, *encoding_, {buffer, count});
    std::copy(utf8.begin(), utf8.end(), buffer);
    return utf8.size();
}

bool XmlReading::affords(const xmlEntity* entity)
{
    entityText_ += entity == nullptr ? 0 : view(entity->content).size();
    const bool alarming =
        current_->inSubset != 0 && current_->nbentities > kMaxReferencesInDocumentType;
    return spend_event(entityText_ <= kMaxEntityText && !alarming);
}

void XmlReading::fail()
{
    failure_ = std::current_exception();
    halt();
}

/// What a visitor sees is not kept, so only the building of a tree has a limit.
bool XmlReading::spend_event(bool cheap)
{
    refused_ = refused_ || (visitor_ == nullptr && (!cheap || ++events_ > kMaxTreeEvents));
    if (ended())
        halt();
    return !ended();
}

/**
 * Lets the document and the entity that is being read end where they are: what the library
 * has of them and did not look at becomes NULs. Its own way to stop frees what functions up
 * the stack still look at, and the state that it sets alone keeps some of them running.
 */
void XmlReading::halt()
{
    for (xmlParserCtxt* const parser : {current_, context_.get()}) {
        parser->disableSAX = 1;
        parser->wellFormed = 0;  // an entity fails those that refer to it
        parser->nbentities = 0;
        // Set without memory, it has an entity freed that is still in use.
        if (parser->inSubset != 0 && parser->instate == XML_PARSER_EOF)
            parser->instate = XML_PARSER_DTD;
        std::for_each(parser->inputTab, parser->inputTab + parser->inputNr, erase_rest);
    }
}

}  // namespace tarvik
