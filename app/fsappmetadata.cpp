#include "app/fsappmetadata.h"

#include "common/ExSystemError.h"
#include "common/misc.h"
#include "common/xml.h"

#include <libxml/tree.h>
#include <libxml/xpath.h>
#include <libxml/xpathInternals.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <memory>
#include <new>
#include <optional>
#include <sstream>
#include <utility>

namespace tarvik {

/// One mapping while the tree is walked.
struct FSAMetaDataReader::urlMappingItem {
    std::string url;
    std::string path;
    bool writable = false;
    std::list<FSAMetaDataWebContent::CGIHandler> cgiHandlers;
    std::list<FSAMetaDataWebContent::PHPHandler> phpHandlers;
    std::string redirect;
    int line = 0;
};

namespace {

constexpr char kBaseUri[] = "http://veska.example/ns/1";

// Prefix and what follows the base URI.
constexpr std::pair<const char*, const char*> kNamespaces[] = {
    {"s", ""},
    {"php", "/php"},
    {"cgi", "/cgi"},
    {"w", ""},
};

// All texts of one file, with the entities in them and the prefixes that nested mappings repeat.
constexpr std::size_t kTextBudget = 4 * 1024 * 1024;

// Milliseconds that the writer of a pipe may take for its next byte.
constexpr int kPipePatience = 10'000;

struct FreeXPathObject {
    void operator()(xmlXPathObject* object) const noexcept { xmlXPathFreeObject(object); }
};
using XPathObject = std::unique_ptr<xmlXPathObject, FreeXPathObject>;

struct FreeXPathContext {
    void operator()(xmlXPathContext* context) const noexcept { xmlXPathFreeContext(context); }
};
using XPathContext = std::unique_ptr<xmlXPathContext, FreeXPathContext>;

const xmlChar* xml_chars(const std::string& text)
{
    return reinterpret_cast<const xmlChar*>(text.c_str());
}

/// The nodes of a result in document order; none when it is not a node set.
class Nodes {
public:
    explicit Nodes(const xmlXPathObject& result) : set_(result.nodesetval) { }
    xmlNode** begin() const { return set_ == nullptr ? nullptr : set_->nodeTab; }
    xmlNode** end() const { return set_ == nullptr ? nullptr : set_->nodeTab + set_->nodeNr; }
    bool empty() const { return begin() == end(); }
    xmlNode* front() const { return empty() ? nullptr : *begin(); }

private:
    const xmlNodeSet* set_;
};

XmlBudget& budget_of(const xmlXPathContext* context)
{
    return *static_cast<XmlBudget*>(context->userData);
}

/**
 * Opens a file for reading without waiting for it.
 * @return none unless it is a regular file or a pipe: others are not even opened, since that alone
 *         may set a device going.
 */
TDescriptor open_file_or_pipe(const std::string& fileName)
{
    const TDescriptor found(::open(fileName.c_str(), O_PATH | O_CLOEXEC));
    struct stat status;
    if (!found || ::fstat(found.get(), &status) != 0
        || !(S_ISREG(status.st_mode) || S_ISFIFO(status.st_mode)))
        return TDescriptor();
    // What was examined, whatever the name leads to by now.
    const std::string examined = descriptor_path(found.get());
    return TDescriptor(::open(examined.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

/// @return the number of bytes read; 0 at the end, also of a pipe without a writer; -1 on error.
int read_some(int file, char* buffer, int size)
{
    const auto length = static_cast<std::size_t>(size);
    const auto read = [&] { return retried([&] { return ::read(file, buffer, length); }); };
    ssize_t count = read();
    while (count == -1 && errno == EAGAIN) {
        pollfd pipe = {file, POLLIN, 0};
        if (retried([&pipe] { return ::poll(&pipe, 1, kPipePatience); }) <= 0)
            return -1;
        count = read();
    }
    return static_cast<int>(count);
}

std::int32_t depth_of(const std::string& url)
{
    return static_cast<std::int32_t>(std::count(url.begin(), url.end(), '/'));
}

/// The text of a required element, the first of the query's result.
std::string required_text(const xmlXPathContext* context, const XPathObject& found,
                          const char* element)
{
    const Nodes nodes(*found);
    if (nodes.empty())
        throw FSAXMLException("Invalid package metadata file format: <s:" + std::string(element)
                              + "> element is missing.");
    return xml_text(nodes.front(), budget_of(context));
}

[[noreturn]] void throw_unable_to_load(const std::string& fileName)
{
    throw FSAXMLException("Unable to load file: " + fileName);
}

std::string required_url(const xmlNode* mapping, XmlBudget& budget)
{
    if (std::optional<std::string> url = xml_attribute(mapping, "url", budget))
        return *std::move(url);
    throw FSAXMLException(
        "Invalid package metadata file format: <s:mapping> has no url attribute.");
}

/// The package directory of a mapping: along the URL tree, or from the package root if it says so.
std::string mapping_path(const xmlNode* mapping, const std::string& url,
                         const std::string& parentPath, XmlBudget& budget)
{
    const std::string path = xml_attribute(mapping, "path", budget).value_or("");
    if (path.empty())
        return remove_trailing_slashes(parentPath) + "/" + remove_starting_slashes(url);
    return "/" + remove_starting_slashes(path);
}

void register_namespace(xmlXPathContext* context, const std::string& prefix, const std::string& uri)
{
    const int status = xmlXPathRegisterNs(context, xml_chars(prefix), xml_chars(uri));
    XmlSilence::require_memory();
    if (status != 0)
        throw FSAXMLException("unable to register namespace " + uri + " with prefix " + prefix);
}

XPathObject execute_xpath_query(xmlXPathContext* context, const std::string& expression)
{
    XPathObject result(xmlXPathEvalExpression(xml_chars(expression), context));
    XmlSilence::require_memory();
    if (!result) {
        const xmlError& error = context->lastError;
        throw FSAXMLException("Unable to execute XPath expression " + expression + ": "
                              + (error.message != nullptr
                                     ? std::string(error.message)
                                     : "error code: " + std::to_string(error.code)));
    }
    return result;
}

/// Evaluates an expression relative to `node`.
XPathObject query(xmlXPathContext* context, xmlNode* node, const char* expression)
{
    context->node = node;
    return execute_xpath_query(context, expression);
}

bool has(xmlXPathContext* context, xmlNode* node, const char* expression)
{
    return !Nodes(*query(context, node, expression)).empty();
}

std::list<std::string> texts(xmlXPathContext* context, xmlNode* node, const char* expression)
{
    const XPathObject found = query(context, node, expression);
    std::list<std::string> result;
    for (const xmlNode* const element : Nodes(*found))
        result.push_back(xml_text(element, budget_of(context)));
    return result;
}

bool is_writable(xmlXPathContext* context, xmlNode* mapping)
{
    const XPathObject found = query(context, mapping, "./php:permissions");
    const Nodes permissions(*found);
    return std::any_of(permissions.begin(), permissions.end(), [context](const xmlNode* element) {
        return xml_attribute(element, "writable", budget_of(context)) == "true";
    });
}

std::list<FSAMetaDataWebContent::PHPHandler> php_handlers(xmlXPathContext* context,
                                                          xmlNode* mapping)
{
    const XPathObject found = query(context, mapping, "./php:handler");
    std::list<FSAMetaDataWebContent::PHPHandler> handlers;
    for (xmlNode* const element : Nodes(*found)) {
        auto& handler = handlers.emplace_back();
        handler.disabled = has(context, element, "./php:disabled");
        if (!handler.disabled)
            handler.extensions = texts(context, element, "./php:extension");
    }
    return handlers;
}

std::list<FSAMetaDataWebContent::CGIHandler> cgi_handlers(xmlXPathContext* context,
                                                          xmlNode* mapping)
{
    const XPathObject found = query(context, mapping, "./cgi:handler");
    std::list<FSAMetaDataWebContent::CGIHandler> handlers;
    for (xmlNode* const element : Nodes(*found)) {
        auto& handler = handlers.emplace_back();
        handler.disabled = has(context, element, "./cgi:disabled");
        handler.allFiles = !handler.disabled && has(context, element, "./cgi:all-files");
        if (!handler.disabled && !handler.allFiles)
            handler.extensions = texts(context, element, "./cgi:extension");
    }
    return handlers;
}

}  // namespace

FSAMetaDataWebContent& FSAMetaDataWebContent::operator=(const FSAMetaDataWebContent& other)
{
    path = other.path;
    url = other.url;
    depth = other.depth;
    reserved = other.reserved;
    writable = other.writable;
    return *this;
}

/// Reads the file as it is: no decompression, and no name means more than a path.
XmlDoc read_metadata_tree(const std::string& fileName, XmlProblem& problem)
{
    const TDescriptor file = open_file_or_pipe(fileName);
    if (!file)
        return nullptr;
    return read_xml_tree(
        [&file](char* buffer, int size) { return read_some(file.get(), buffer, size); }, &problem);
}

FSAMetaDataReader::FSAMetaDataReader(const std::string& fileName) : packagingVersion_("1.0")
{
    const XmlSilence silence;
    XmlProblem problem;
    const XmlDoc document = read_metadata_tree(fileName, problem);
    if (!document)
        throw_unable_to_load(fileName);
    read(*document, fileName);
}

FSAMetaDataReader::FSAMetaDataReader(_xmlDoc& document, const std::string& fileName)
    : packagingVersion_("1.0")
{
    const XmlSilence silence;
    read(document, fileName);
}

void FSAMetaDataReader::read(_xmlDoc& document, const std::string& fileName)
try {
    read(document);
} catch (const XmlBudgetExceeded&) {
    throw_unable_to_load(fileName);
}

void FSAMetaDataReader::read(_xmlDoc& document)
{
    xmlXPathOrderDocElems(&document);  // else sorting a large node set walks its siblings
    const XPathContext owned(xmlXPathNewContext(&document));
    XmlSilence::require_memory();
    if (!owned)
        throw std::bad_alloc();
    xmlXPathContext* const context = owned.get();
    XmlBudget budget(kTextBudget);
    context->userData = &budget;
    for (const auto& [prefix, path] : kNamespaces)
        register_namespace(context, prefix, std::string(kBaseUri) + path);

    const auto find = [context](const char* expression) {
        return execute_xpath_query(context, expression);
    };
    const XPathObject root = find("/s:application");
    const Nodes roots(*root);
    if (!roots.empty())
        packagingVersion_ = xml_attribute(roots.front(), "version", budget).value_or("1.0");
    name_ = required_text(context, find("/s:application/s:name"), "name");
    version_ = required_text(context, find("/s:application/s:version"), "version");
    // A missing release is reported as a missing name: the text is what callers know.
    release_ = required_text(context, find("/s:application/s:release"), "name");
    const XPathObject language = find("/s:application/s:configuration-script-language");
    scriptLanguage_ = xml_text(Nodes(*language).front(), budget);

    const XPathObject mappings = find("/s:application/s:mapping");
    std::vector<std::pair<std::int32_t, int>> lines;  // by depth
    for (urlMappingItem& item : getUrlMappings(context, *mappings, "", "")) {
        FSAMetaDataWebContent& content = webContents_.emplace_back();
        content.depth = depth_of(item.url);
        lines.emplace_back(content.depth, item.line);
        content.path = std::move(item.path);
        content.url = std::move(item.url);
        content.writable = item.writable;
        content.phpHandlers = std::move(item.phpHandlers);
        content.cgiHandlers = std::move(item.cgiHandlers);
        content.redirect = std::move(item.redirect);
    }
    webContents_.sort();  // stable
    std::stable_sort(lines.begin(), lines.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    std::transform(lines.begin(), lines.end(), std::back_inserter(mappingLines_),
                   [](const auto& line) { return line.second; });
}

std::list<FSAMetaDataReader::urlMappingItem>
FSAMetaDataReader::getUrlMappings(_xmlXPathContext* context, const _xmlXPathObject& mappings,
                                  const std::string& parentPath, const std::string& parentUrl)
{
    XmlBudget& budget = budget_of(context);
    std::list<urlMappingItem> items;
    const Nodes nodes(mappings);
    for (xmlNode** next = nodes.end(); next != nodes.begin();) {
        xmlNode* const mapping = *--next;
        if (mapping->type != XML_ELEMENT_NODE)
            continue;
        const std::string url = required_url(mapping, budget);
        urlMappingItem item;
        item.line = static_cast<int>(xmlGetLineNo(mapping));
        item.url = remove_trailing_slashes(parentUrl) + "/" + remove_starting_slashes(url);
        if (const auto kind = xml_attribute(mapping, "virtual", budget)) {
            const auto target = xml_attribute(mapping, "href", budget);
            if (*kind == "redirect" && target) {
                budget.spend(item.url.size());
                item.redirect = *target;
                items.push_back(std::move(item));
            }
            continue;  // whatever it holds is not looked at
        }

        item.path = mapping_path(mapping, url, parentPath, budget);
        budget.spend(item.url.size() + item.path.size());
        item.writable = is_writable(context, mapping);
        item.phpHandlers = php_handlers(context, mapping);
        item.cgiHandlers = cgi_handlers(context, mapping);
        items.push_back(std::move(item));
        const urlMappingItem& own = items.back();
        const XPathObject nested = query(context, mapping, "./s:mapping");
        items.splice(items.end(), getUrlMappings(context, *nested, own.path, own.url));
    }
    return items;
}

std::string remove_trailing_slashes(std::string text)
{
    text.erase(text.find_last_not_of('/') + 1);  // npos + 1 is 0
    return text;
}

std::string remove_starting_slashes(std::string text)
{
    text.erase(0, text.find_first_not_of('/'));
    return text;
}

void require_inner_url(const std::string& url)
{
    int depth = 0;
    std::istringstream elements(url);
    for (std::string element; std::getline(elements, element, '/');) {
        if (element == "..")
            --depth;
        else if (!element.empty() && element != ".")
            ++depth;
        if (depth < 0)  // even if the rest leads back: what it leads through is not the package's
            throw FSAXMLException("Invalid package metadata file format: <s:mapping> url leads out "
                                  "of the application.");
    }
}

}  // namespace tarvik
