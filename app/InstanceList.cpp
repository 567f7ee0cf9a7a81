#include "app/InstanceList.h"

#include "common/xml.h"

#include <boost/filesystem/path.hpp>

#include <algorithm>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace fs = boost::filesystem;

namespace tarvik {

namespace {

bool is_plain(const std::string& path)
{
    return !path.empty() && path.front() != '/' && path.back() != '/'
        && path.find("//") == std::string::npos;
}

/**
 * A text that sorts byte by byte as the path sorts element by element: the elements with a NUL,
 * which XML cannot hold, between. Comparing library paths would cost more than removing the files.
 */
std::string sort_key(const std::string& path, bool plain)
{
    std::string key;
    if (plain) {
        key = path;
        std::replace(key.begin(), key.end(), '/', '\0');
    } else {
        for (const fs::path& element : fs::path(path))
            key += (key.empty() ? "" : std::string(1, '\0')) + element.native();
    }
    return key;
}

/// Collects the files of an instance file list while it is read, without building a tree of it.
class InstanceListVisitor : public XmlVisitor {
public:
    void start_element(std::string_view name, const XmlAttributes& attributes) override
    {
        ++depth_;
        rootSeen_ = true;
        if (error_ != nullptr)
            return;
        if (depth_ == kRootDepth && name != "INSTANCE-DATA")
            error_ = kWrongRoot;
        else if (depth_ == kSectionDepth)
            start_section(name, attributes);
        else if (depth_ == kFileDepth)
            inFile_ = inSection_ && name == "FILE";
    }

    void end_element() override
    {
        if (depth_ == kFileDepth && inFile_) {
            if (!text_.empty())
                files_.push_back(instance_file(section_, text_));
            text_.clear();
            inFile_ = false;
        }
        --depth_;
    }

    void text(std::string_view piece) override
    {
        if (inFile_)
            text_ += piece;
    }

    void other_node() override
    {
        if (!rootSeen_)
            error_ = kWrongRoot;
    }

    bool document_type() override
    {
        error_ = kWrongRoot;
        return false;  // it may declare entities, which only the tree reader is fit to handle
    }

    /// What is wrong with the list although it is well-formed; null when it is right.
    const char* error() const { return error_; }
    std::vector<InstanceFile> take_files() { return std::move(files_); }

    static constexpr const char* kWrongRoot = "Wrong root node name";

private:
    static constexpr int kRootDepth = 1;
    static constexpr int kSectionDepth = 2;
    static constexpr int kFileDepth = 3;

    void start_section(std::string_view name, const XmlAttributes& attributes)
    {
        inSection_ = name == "SECTION";
        if (!inSection_)
            return;
        const auto prefix = attributes.find("PREFIX");
        if (!prefix)
            error_ = "Attribute name is required for section";
        else if (*prefix == "htdocs")
            section_ = Htdocs;
        else if (*prefix == "cgi-bin")
            section_ = CgiBin;
        else
            error_ = "Bad sttribute name value";
    }

    const char* error_ = nullptr;
    bool rootSeen_ = false;
    bool inSection_ = false;
    bool inFile_ = false;
    int depth_ = 0;
    InstallSection section_ = Htdocs;
    std::string text_;
    std::vector<InstanceFile> files_;
};

}  // namespace

InstanceFile instance_file(InstallSection section, const std::string& path)
{
    const bool plain = is_plain(path);
    return {section, path, sort_key(path, plain), plain};
}

std::vector<InstanceFile> parse_instance_list(const std::string& text)
{
    InstanceListVisitor visitor;
    const XmlEnd end = visit_xml(xml_source(text), visitor);
    // Stopped at a document type: which error it is depends on the rest being well-formed.
    if (end == XmlEnd::Malformed || (end == XmlEnd::Stopped && !read_xml_tree(xml_source(text))))
        throw std::runtime_error("XML parse error");
    if (visitor.error() != nullptr)
        throw std::runtime_error(visitor.error());
    return visitor.take_files();
}

}  // namespace tarvik
