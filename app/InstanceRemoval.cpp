#include "app/InstanceRemoval.h"

#include "app/InstanceList.h"
#include "common/misc.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <iostream>
#include <tuple>

namespace fs = boost::filesystem;

namespace tarvik {

namespace {

const char* section_directory(InstallSection section)
{
    return section == Htdocs ? kDocumentRoot : kCgiBin;
}

/// Removes an instance's files, a run of files in one directory without resolving its path anew.
class InstanceRemover {
public:
    InstanceRemover(const fs::path& vhost, const ExtractParams& params, const fs::path& prefix)
        : delete_(vhost, params)
    {
        for (const InstallSection section : {CgiBin, Htdocs}) {
            Place& place = places_[section];
            place.rel = section_directory(section);
            if (prefix != ".")
                place.rel /= prefix;
            place.real = delete_.location(place.rel);
        }
    }

    void remove(const InstanceFile& file)
    {
        const Place& place = places_[file.section()];
        if (unlink_at_once(file, place))
            return;
        std::string path;
        file.append_path(path);
        delete_(place.rel / path);
    }

private:
    /// Where the files of one section are installed.
    struct Place {
        fs::path rel;                  ///< relative to the virtual host
        std::optional<fs::path> real;  ///< none when the section is kept
    };

    /// Nearly every entry is a file that is there: one call. @return false for whatever it is not.
    bool unlink_at_once(const InstanceFile& file, const Place& place)
    {
        if (!file.plain() || !place.real)
            return false;
        target_ = place.real->native();
        if (!target_.empty())
            target_ += '/';
        file.append_path(target_);
        const PathAt file_at = directory_.at(target_);
        return ::unlinkat(file_at.directory, file_at.name, 0) == 0;
    }

    DeleteDirEntry delete_;
    Place places_[2];
    LastDirectory directory_;
    std::string target_;
};

}  // namespace

}  // namespace tarvik

void sapp_delete_instance(const char* vhost_dir, const extract_params_t* params, const char* prefix)
{
    using namespace tarvik;
    InstanceFiles files = parse_instance_list(std::cin);
    if (std::strcmp(prefix, ".") != 0 && std::strcmp(prefix, "/") != 0)
        files.add(Htdocs, "");  // the prefix directory itself, once empty
    std::sort(files.begin(), files.end(), [](const InstanceFile& a, const InstanceFile& b) {
        return std::tuple(b.section(), b.key()) < std::tuple(a.section(), a.key());
    });
    InstanceRemover remover(vhost_dir, ExtractParams(*params), prefix);
    for (const InstanceFile& file : files)
        remover.remove(file);
}
