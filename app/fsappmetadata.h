#pragma once

#include "common/xml.h"

#include <cstdint>
#include <list>
#include <string>
#include <vector>

struct _xmlDoc;
struct _xmlXPathContext;
struct _xmlXPathObject;

namespace tarvik {

/// One URL mapping of a package: which directory of the package answers under which URL, and how.
class FSAMetaDataWebContent {
public:
    /// What PHP does in the mapping. Extensions are as the package writes them, without a dot.
    struct PHPHandler {
        using extension = std::string;
        bool disabled = false;
        std::list<extension> extensions;
    };
    /// What CGI does in the mapping. At most one of the flags is set; with either no extensions.
    struct CGIHandler {
        using extension = std::string;
        bool allFiles = false;
        bool disabled = false;
        std::list<extension> extensions;
    };

    FSAMetaDataWebContent() = default;
    FSAMetaDataWebContent(const FSAMetaDataWebContent&) = default;
    FSAMetaDataWebContent(FSAMetaDataWebContent&&) = default;
    /**
     * Copies path, url, depth, reserved and writable only: the handlers and the redirect target
     * stay as they are. A full copy is what the copy constructor makes.
     */
    FSAMetaDataWebContent& operator=(const FSAMetaDataWebContent& other);
    ~FSAMetaDataWebContent() = default;

    /// By depth alone.
    bool operator<(const FSAMetaDataWebContent& other) const { return depth < other.depth; }

    std::string path;           ///< directory in the package, beginning with "/"; empty: a redirect
    std::string url;            ///< beginning with "/"
    std::int32_t reserved = 0;  ///< copied along; always 0
    bool writable = false;      ///< PHP wants to write here
    std::int32_t depth = 0;     ///< number of "/" in url
    std::list<PHPHandler> phpHandlers;  ///< in document order
    std::list<CGIHandler> cgiHandlers;  ///< in document order
    std::string redirect;               ///< target of a redirecting mapping, else empty
};

/**
 * Reads a metadata file as a tree, for who looks at more than its contents.
 * @param fileName  as the reader below takes it. @param problem  receives why a file that could be
 * opened is refused.
 * @return the tree; null when the reader would not load the file. @throws std::bad_alloc
 */
XmlDoc read_metadata_tree(const std::string& fileName, XmlProblem& problem);

/// The contents of a package's metadata file, read once.
class FSAMetaDataReader {
public:
    /**
     * @param fileName  a local file, whatever it is called; it may be hostile and is read with
     * little memory and time. A pipe may take 10 seconds for each next byte; a device or a socket
     * is not opened.
     * @throws FSAXMLException when the file cannot be read, is not well-formed, costs too much to
     *         read or lacks a required element; std::bad_alloc when memory runs out.
     */
    explicit FSAMetaDataReader(const std::string& fileName);
    /// The same for a tree that has been read from the file of that name.
    FSAMetaDataReader(_xmlDoc& document, const std::string& fileName);
    FSAMetaDataReader(const FSAMetaDataReader&) = default;
    FSAMetaDataReader(FSAMetaDataReader&&) = default;
    /// Assigning a mapping leaves its handlers as they are, so a list of them would keep wrong
    /// ones.
    FSAMetaDataReader& operator=(const FSAMetaDataReader&) = delete;
    FSAMetaDataReader& operator=(FSAMetaDataReader&&) = delete;
    ~FSAMetaDataReader() = default;

    /// The URL mappings, shallow ones first; of equal depth, later ones of the file first.
    const std::list<FSAMetaDataWebContent>& webContents() const { return webContents_; }
    /// The lines of their elements, in the same order.
    const std::vector<int>& mappingLines() const { return mappingLines_; }
    const std::string& name() const { return name_; }
    const std::string& version() const { return version_; }
    const std::string& release() const { return release_; }
    /// Empty when the package names none.
    const std::string& configurationScriptLanguage() const { return scriptLanguage_; }
    /// Version of the packaging standard, "1.0" unless the package names another.
    const std::string& packagingVersion() const { return packagingVersion_; }

private:
    struct urlMappingItem;

    void read(_xmlDoc& document, const std::string& fileName);
    void read(_xmlDoc& document);
    static std::list<urlMappingItem> getUrlMappings(_xmlXPathContext* context,
                                                    const _xmlXPathObject& mappings,
                                                    const std::string& parentPath,
                                                    const std::string& parentUrl);

    std::list<FSAMetaDataWebContent> webContents_;
    std::vector<int> mappingLines_;
    std::string name_;
    std::string version_;
    std::string release_;
    std::string scriptLanguage_;
    std::string packagingVersion_;
};

/// @return `text` without any "/" at its end.
std::string remove_trailing_slashes(std::string text);
/// @return `text` without any "/" at its start.
std::string remove_starting_slashes(std::string text);

/**
 * For whoever turns a mapping's URL into a path on the disk: the reader takes any URL.
 * @param url  of a mapping. ".." may lead back over elements before it, "." and empty ones are
 *             neutral; links are not looked at.
 * @throws FSAXMLException when some start of the URL lies outside of the application.
 */
void require_inner_url(const std::string& url);

}  // namespace tarvik
