#include "app/InstanceList.h"

#include "common/xml.h"

#include <boost/filesystem/path.hpp>

#include <algorithm>
#include <istream>
#include <limits>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace fs = boost::filesystem;

namespace tarvik {

namespace {

constexpr std::size_t kBlock = 256 * 1024;

bool is_plain(std::string_view path)
{
    return !path.empty() && path.front() != '/' && path.back() != '/'
        && path.find("//") == std::string_view::npos;
}

/**
 * The elements with a NUL, which XML cannot hold, between. Comparing library paths would cost more
 * than removing the files.
 */
std::string sort_key(std::string_view path, bool plain)
{
    std::string key;
    if (plain) {
        key = path;
        std::replace(key.begin(), key.end(), '/', '\0');
    } else {
        for (const fs::path& element : fs::path(path.begin(), path.end()))
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
                files_.add(section_, text_);
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
    bool root_seen() const { return rootSeen_; }
    InstanceFiles take_files() { return std::move(files_); }

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
    InstanceFiles files_;
};

/// Reads on where the stream stands.
int read_some(std::istream& in, char* buffer, int size)
{
    in.read(buffer, size);
    return static_cast<int>(in.gcount());
}

/// Reads a list for a visitor. @param start  receives what came before the root element.
XmlEnd visit_list(std::istream& in, InstanceListVisitor& visitor, std::string& start)
{
    return visit_xml(
        [&](char* buffer, int size) {
            const int count = read_some(in, buffer, size);
            if (visitor.root_seen())
                std::string().swap(start);
            else if (start.size() <= kMaxXmlTreeBytes)
                start.append(buffer, static_cast<std::size_t>(count));
            return count;
        },
        visitor);
}

/// @return whether what was read already and what follows are a well-formed document.
bool is_well_formed(std::string_view start, std::istream& in)
{
    return read_xml_tree([kept = xml_source(start), &in](char* buffer, int size) {
               const int count = kept(buffer, size);
               return count > 0 ? count : read_some(in, buffer, size);
           })
        != nullptr;
}

}  // namespace

void InstanceFile::append_path(std::string& text) const
{
    if (plain()) {
        const std::size_t had = text.size();
        text += key();
        std::replace(text.begin() + static_cast<std::ptrdiff_t>(had), text.end(), '\0', '/');
    } else {
        text += text_ + key().size();
    }
}

void InstanceFiles::add(InstallSection section, std::string_view path)
{
    const bool plain = is_plain(path);
    const std::string key = sort_key(path, plain);
    InstanceFile file;
    file.text_ = store(key, plain ? std::string_view() : path);
    file.shape_ = key.size() << InstanceFile::kFlags | (plain ? InstanceFile::kPlain : 0)
        | (section == Htdocs ? InstanceFile::kHtdocs : 0);
    files_.push_back(file);
}

const char* InstanceFiles::store(std::string_view key, std::string_view path)
{
    const std::size_t length = key.size() + path.size() + 1;
    if (length > freeLength_) {
        freeLength_ = std::max(length, kBlock);
        free_ = blocks_.emplace_back(std::make_unique<char[]>(freeLength_)).get();
    }
    char* const text = free_;
    *std::copy(path.begin(), path.end(), std::copy(key.begin(), key.end(), text)) = '\0';
    free_ += length;
    freeLength_ -= length;
    return text;
}

InstanceFiles parse_instance_list(std::istream& in)
{
    InstanceListVisitor visitor;
    std::string start;
    const XmlEnd end = visit_list(in, visitor, start);
    // Stopped at a document type: which error it is depends on the rest being well-formed.
    const bool wellFormed =
        end == XmlEnd::WellFormed || (end == XmlEnd::Stopped && is_well_formed(start, in));
    in.ignore(std::numeric_limits<std::streamsize>::max());
    if (!wellFormed)
        throw std::runtime_error("XML parse error");
    if (visitor.error() != nullptr)
        throw std::runtime_error(visitor.error());
    return visitor.take_files();
}

}  // namespace tarvik
