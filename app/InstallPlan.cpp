#include "app/InstallPlan.h"

#include "app/fsappmetadata.h"
#include "common/ExSystemError.h"

#include <boost/filesystem/operations.hpp>

#include <algorithm>
#include <iostream>
#include <iterator>
#include <unordered_map>
#include <vector>

namespace fs = boost::filesystem;

namespace tarvik {

namespace {

// Some million entries with paths of usual length. Mappings multiply: hundreds of them over a
// package of thousands of files would fill the machine.
constexpr std::size_t kPlanBytes = std::size_t {512} * 1024 * 1024;
constexpr std::size_t kEntryBytes = 256;  // beside its texts

std::string erase_starting_slashes(const std::string& s)
{
    return s.substr(std::min(s.find_first_not_of('/'), s.size()));
}

bool fileHasExtension(const std::string& name, const std::string& ext)
{
    return name.size() >= ext.size()
        && name.compare(name.size() - ext.size(), ext.size(), ext) == 0;
}

/// Compares from the last character to the first: names with one ending stand together.
bool ends_before(const std::string& a, const std::string& b)
{
    return std::lexicographical_compare(a.rbegin(), a.rend(), b.rbegin(), b.rend());
}

/// What the CGI handlers of a mapping make of its files.
class CgiRule {
public:
    explicit CgiRule(const std::list<FSAMetaDataWebContent::CGIHandler>& handlers)
    {
        for (const auto& handler : handlers) {
            disabled_ = disabled_ || handler.disabled;
            allFiles_ = allFiles_ || handler.allFiles;
            for (const std::string& extension : handler.extensions)
                extensions_.push_back("." + extension);
        }
        // An extension that ends in another one adds nothing, and stands right behind it.
        std::sort(extensions_.begin(), extensions_.end(), ends_before);
        const auto implied = [](const auto& kept, const auto& ext) {
            return fileHasExtension(ext, kept);
        };
        extensions_.erase(std::unique(extensions_.begin(), extensions_.end(), implied),
                          extensions_.end());
    }

    bool executes(const std::string& path) const
    {
        if (disabled_ || allFiles_)
            return !disabled_;  // the safer of two contradicting handlers wins
        const auto after =
            std::upper_bound(extensions_.begin(), extensions_.end(), path, ends_before);
        return after != extensions_.begin() && fileHasExtension(path, *std::prev(after));
    }

private:
    bool disabled_ = false;
    bool allFiles_ = false;
    std::vector<std::string> extensions_;  ///< by their ends, none of which is another's end
};

bool source_exists(const std::string& path)
{
    boost::system::error_code error;
    return fs::exists(fs::status(path, error));
}

/// Plans mapping after mapping.
class Planner {
public:
    Planner(const std::string& packageDir, const std::string& appDir,
            const std::list<FSAMetaDataWebContent>& mappings)
        : packageDir_(packageDir), appDir_(appDir)
    {
        std::size_t number = 0;
        for (const FSAMetaDataWebContent& mapping : mappings) {
            ++number;
            if (!mapping.redirect.empty())
                continue;
            require_inner_url(mapping.url);
            const auto path = erase_starting_slashes(mapping.path);
            const auto url = erase_starting_slashes(mapping.url);
            last_[key(path, url)] = number;
            steps_.push_back({number, path, url, &mapping});
        }
    }

    InstallPlan run()
    {
        for (const Step& step : steps_) {
            note_destination(step);
            const std::string source = join(packageDir_, step.path);
            if (source_exists(source))
                plan_tree(step, source);
            else
                std::cerr << "Source directory \"" << source << "\" is not exist\n";
        }
        return std::move(plan_);
    }

private:
    /// A mapping that installs something.
    struct Step {
        std::size_t number;
        std::string path;  ///< in the package
        std::string url;   ///< in the application
        const FSAMetaDataWebContent* mapping;
    };

    static std::string key(const std::string& path, const std::string& url)
    {
        return path + '\0' + url;
    }

    void note_destination(const Step& step)
    {
        (step.mapping->writable ? plan_.writableDirs : plan_.otherDirs)
            .push_back(step.url.empty() ? appDir_ : join(appDir_, step.url));
    }

    /// Plans a mapping's own root, then everything below.
    void plan_tree(const Step& step, const std::string& source)
    {
        const CgiRule cgi(step.mapping->cgiHandlers);
        const std::string sourceStart = step.path.empty() ? "" : step.path + "/";
        const std::string targetStart = step.url.empty() ? "" : step.url + "/";
        // What a later mapping plans in the same way is not planned twice.
        const auto enter = [&](const std::string& path, int) {
            const auto later = last_.find(key(sourceStart + path, targetStart + path));
            return later == last_.end() || later->second < step.number;
        };
        for (const ListedEntry& entry : list_tree(source, enter)) {
            if (entry.path.empty())
                add({step.path, step.url});
            else
                add({sourceStart + entry.path, targetStart + entry.path, cgi.executes(entry.path),
                     entry.type});
        }
    }

    /// What is planned later replaces the same.
    void add(FSAInstallFileinfo file)
    {
        bytes_ += kEntryBytes + file.sourcePath.size() + 2 * file.targetPath.size();
        if (bytes_ > kPlanBytes)
            throw FSAXMLException("Invalid package metadata file format: <s:mapping> elements ask "
                                  "for too many files.");
        // Most file systems list a directory in some order, so that one entry is beside the last.
        std::string target = file.targetPath;
        lastAdded_ = plan_.files.insert_or_assign(lastAdded_, std::move(target), std::move(file));
    }

    const std::string& packageDir_;
    const std::string& appDir_;
    std::vector<Step> steps_;
    std::unordered_map<std::string, std::size_t> last_;  ///< last step that maps a path to a URL
    std::size_t bytes_ = 0;
    InstallPlan plan_;
    decltype(plan_.files)::iterator lastAdded_ = plan_.files.end();
};

}  // namespace

bool makes_program(const FSAMetaDataWebContent& mapping, const std::string& path)
{
    return CgiRule(mapping.cgiHandlers).executes(path);
}

std::string join(const std::string& directory, const std::string& path)
{
    return directory + "/" + path;
}

InstallPlan plan_install(const std::string& packageDir, const std::string& appDir,
                         const FSAMetaDataReader& metadata)
{
    return Planner(packageDir, appDir, metadata.webContents()).run();
}

}  // namespace tarvik
