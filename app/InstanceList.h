#pragma once

#include <cstddef>
#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace tarvik {

/// Section of a listed file. The values take part in the order of removal.
enum InstallSection { CgiBin = 0, Htdocs = 1 };

/// One file or directory of an instance. Its texts belong to the list it is in.
class InstanceFile {
public:
    InstallSection section() const { return (shape_ & kHtdocs) != 0 ? Htdocs : CgiBin; }
    /// A text that sorts byte by byte as the path sorts element by element.
    std::string_view key() const { return {text_, shape_ >> kFlags}; }
    /// Whether the path is just its elements with a separator between.
    bool plain() const { return (shape_ & kPlain) != 0; }
    /// Appends the path as it was listed.
    void append_path(std::string& text) const;

private:
    friend class InstanceFiles;

    static constexpr std::size_t kPlain = 1, kHtdocs = 2, kFlags = 2;

    const char* text_;   ///< the key; behind it the path and a NUL unless it is plain
    std::size_t shape_;  ///< the key's length and the flags, so that an entry takes two words
};

/// The files of an instance, a million of them in little more memory than their paths take.
class InstanceFiles {
public:
    void add(InstallSection section, std::string_view path);

    using iterator = std::vector<InstanceFile>::iterator;
    iterator begin() { return files_.begin(); }
    iterator end() { return files_.end(); }
    std::size_t size() const { return files_.size(); }
    const InstanceFile& operator[](std::size_t index) const { return files_[index]; }

private:
    const char* store(std::string_view key, std::string_view path);

    std::vector<std::unique_ptr<char[]>> blocks_;
    char* free_ = nullptr;  ///< in the last block
    std::size_t freeLength_ = 0;
    std::vector<InstanceFile> files_;
};

/**
 * Reads an instance file list of any length, piece by piece.
 * @param in  the XML document; read to its end in any case, so that its writer need not fail.
 * @return its files in the order of the list.
 * @throws std::runtime_error when it is malformed, std::bad_alloc when memory runs out.
 */
InstanceFiles parse_instance_list(std::istream& in);

}  // namespace tarvik
