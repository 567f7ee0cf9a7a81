#include "ctl/PackageCheck.h"

#include "app/InstallPlan.h"
#include "app/webserverconfig.h"
#include "common/ExSystemError.h"
#include "ctl/MetadataSchema.h"
#include "ctl/PackageFiles.h"
#include "ctl/Trouble.h"

#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>

#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <optional>

namespace fs = boost::filesystem;

namespace tarvik::ctl {

namespace {

bool is_leaving(const std::string& path)
try {
    require_inner_url(path);
    return false;
} catch (const FSAXMLException&) {
    return true;
}

bool has_blank(const std::string& value)
{
    return value.find(' ') != std::string::npos;
}

/// As Apache tells a URL from a path.
bool is_no_target(const std::string& value)
{
    const std::size_t end = value.find_first_not_of("abcdefghijklmnopqrstuvwxyz"
                                                    "ABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                                    "0123456789+-.");
    return value.front() != '/' && (end == 0 || end == std::string::npos || value[end] != ':');
}

/// What Apache makes of a value: without quotes, it has to be one word.
struct Rule {
    bool (*breaks)(const std::string& value);
    const char* text;
};

constexpr Rule kUrlRules[] = {
    {has_blank, "has a blank: Apache does not start with it"},
};
constexpr Rule kTargetRules[] = {
    {has_blank, "has a blank: Apache does not start with it"},
    {[](const std::string& value) { return value.front() == '"' || value.front() == '\''; },
     "begins with a quote: Apache takes it for its own"},
    {[](const std::string& value) {
         return value.size() > 1 && value.compare(value.size() - 2, 2, "\\\\") == 0;
     },
     "ends in two backslashes: Apache draws the next line into it"},
    {is_no_target, "is neither an absolute URL nor a path: Apache does not start with it"},
};
constexpr Rule kExtensionRules[] = {
    {[](const std::string& value) { return value.empty(); }, "is empty"},
    {has_blank, "has a blank: to Apache these are two"},
    {[](const std::string& value) { return value.front() == '.'; },
     "begins with a dot: only names with two dots end so"},
};

/// The mappings by themselves and in their places.
class MappingCheck {
public:
    /// @param metadata  what the file is called in findings.
    MappingCheck(const std::string& directory, const std::string& metadata, Findings& findings)
        : directory_(directory), metadata_(metadata), findings_(findings)
    {
    }

    /// @return whether an extraction would get as far as looking at files.
    bool run(const FSAMetaDataReader& reader)
    {
        auto line = reader.mappingLines().begin();
        for (const FSAMetaDataWebContent& mapping : reader.webContents()) {
            line_ = *line++;
            check_url(mapping);
            if (mapping.redirect.empty())
                check_source(mapping);
            check_config(mapping);
        }
        return plannable_;
    }

private:
    void error(const std::string& text) { findings_.error(metadata_, text, line_); }
    void warning(const std::string& text) { findings_.warning(metadata_, text, line_); }

    void check_url(const FSAMetaDataWebContent& mapping)
    {
        if (is_leaving(mapping.url)) {
            error("url \"" + mapping.url + "\" leads out of the application");
            plannable_ = plannable_ && !mapping.redirect.empty();
        }
        const std::string path = remove_trailing_slashes(mapping.url);
        const fs::path url = fs::path(path.empty() ? "/" : path).lexically_normal();
        const auto [other, first] = lines_.emplace(url.native(), line_);
        if (!first)  // the later ones of the file come first
            findings_.warning(metadata_,
                              "url \"" + url.native() + "\" has a mapping in line "
                                  + std::to_string(std::min(line_, other->second)) + " already",
                              std::max(line_, other->second));
    }

    void check_source(const FSAMetaDataWebContent& mapping)
    {
        const std::string path = remove_starting_slashes(mapping.path);
        struct stat status;
        if (is_leaving(path))
            warning("path \"" + path + "\" leads out of the package");
        if (::stat(join(directory_, path).c_str(), &status) != 0)
            error(
                "there is no \"" + path + "\" in the package: "
                + (mapping.writable ? "the extraction fails on it" : "nothing is installed of it"));
        else if (S_ISREG(status.st_mode) && makes_program(mapping, path))
            warning("\"" + path
                    + "\" is a single file: no handler makes it a "
                      "program");
    }

    void check_config(const FSAMetaDataWebContent& mapping)
    {
        const bool handled = !mapping.phpHandlers.empty() || !mapping.cgiHandlers.empty();
        if (handled || !mapping.redirect.empty())
            check_value("url", mapping.url, kUrlRules);
        if (!mapping.redirect.empty())
            check_value("href", mapping.redirect, kTargetRules);
        for (const auto& handler : mapping.phpHandlers)
            check_extensions(handler.extensions);
        for (const auto& handler : mapping.cgiHandlers) {
            check_extensions(handler.extensions);
            if (mapping.writable && (handler.allFiles || !handler.extensions.empty()))
                warning("what the web server writes here runs as a program");
        }
    }

    void check_extensions(const std::list<std::string>& extensions)
    {
        for (const std::string& extension : extensions)
            check_value("extension", extension, kExtensionRules);
    }

    template <std::size_t Count>
    void check_value(const char* what, const std::string& value, const Rule (&rules)[Count])
    {
        const std::string shown = std::string(what) + " \"" + value + "\" ";
        if (const char* const unfit = unfit_for_config(value))
            return error(shown + "has a " + unfit + ": no Apache file is made");
        const auto* const rule = std::find_if(
            rules, rules + Count, [&value](const Rule& each) { return each.breaks(value); });
        if (rule != rules + Count)
            error(shown + rule->text);
    }

    const std::string& directory_;
    const std::string& metadata_;
    Findings& findings_;
    int line_ = 0;
    bool plannable_ = true;
    std::map<std::string, int> lines_;  ///< by URL
};

/// Checks the whole of a package whose metadata has been read.
class PackageCheck {
public:
    explicit PackageCheck(const PackageSource& package)
        : directory_(fs::canonical(package.directory).native()),
          metadata_(package.metadataFile.empty() ? "APP-META.xml" : package.metadataFile),
          file_(package.metadata_path())
    {
    }

    std::vector<Finding> run()
    {
        XmlProblem problem;
        XmlDoc document = read_metadata_tree(file_, problem);
        if (!document && problem.text.empty())
            throw Trouble("cannot read " + file_);
        if (!document)
            findings_.error(metadata_, problem.text, problem.line);
        else
            check(std::move(document));
        return findings_.take();
    }

private:
    void check(XmlDoc document)
    {
        std::string refusal;
        const auto metadata = read(*document, refusal);
        for (const SchemaError& error : schema_errors(std::move(document)))
            findings_.error(metadata_, error.text, error.line);
        if (metadata)
            check(*metadata);
        else if (findings_.empty())
            findings_.error(metadata_, refusal);
    }

    std::optional<FSAMetaDataReader> read(_xmlDoc& document, std::string& refusal) const
    try {
        return FSAMetaDataReader(document, file_);
    } catch (const FSAXMLException& e) {
        refusal = e.what();
        return std::nullopt;
    }

    void check(const FSAMetaDataReader& metadata)
    {
        const bool plannable = MappingCheck(directory_, metadata_, findings_).run(metadata);
        try {
            if (plannable)
                check_files(directory_, metadata, findings_);
        } catch (const FSAXMLException& e) {
            findings_.error(metadata_, e.what());
        } catch (const fs::filesystem_error& e) {
            findings_.error(e.path1().native(), e.code().message());
        }
        check_script(directory_, metadata, findings_);
    }

    const std::string directory_;
    const std::string metadata_;
    const std::string file_;
    Findings findings_;
};

}  // namespace

std::vector<Finding> look_over(const PackageSource& package)
{
    return PackageCheck(package).run();
}

}  // namespace tarvik::ctl
