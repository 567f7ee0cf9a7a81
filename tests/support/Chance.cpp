#include "tests/support/Chance.h"

#include <boost/filesystem.hpp>

namespace fs = boost::filesystem;

namespace sandbox {

namespace {

// What something else stands in the way of is not made.
void make(const std::string& path, mode_t mode = 0755)
{
    boost::system::error_code error;
    if (fs::create_directories(path, error))
        ::chmod(path.c_str(), mode);
}

void put(const std::string& path, const std::string& content, mode_t mode = 0644)
{
    make(path.substr(0, path.rfind('/')));
    if (std::ofstream(path) << content)
        ::chmod(path.c_str(), mode);
}

void link(const std::string& to, const std::string& path)
{
    boost::system::error_code error;
    fs::create_symlink(to, path, error);
}

void own(const std::string& path, uid_t owner, gid_t group)
{
    [[maybe_unused]] const int failed = ::lchown(path.c_str(), owner, group);  // where there is none
}

}  // namespace

std::string Chance::path(unsigned levels)
{
    static const Words names = {"a", "a-b", "a.c", "b", "c"};
    std::string path = one_of(names);
    for (unsigned more = below(levels); more > 0; --more)
        path += "/" + one_of(names);
    return path;
}

std::string Chance::mappings()
{
    const auto content = [this](unsigned writable) {
        return std::string(once_in(writable) ? "<p:permissions writable='true'/>" : "")
            + (once_in(4) ? "<c:handler><c:all-files/></c:handler>" : "");
    };
    std::string nested;
    for (unsigned more = below(5); more > 0; --more) {
        const std::string url = one_of(odd_ + Words {path(1), path(2), path(2)});
        nested += "<m '" + url + "'" + (once_in(3) ? " path='htdocs/" + path(2) + "'" : "") + ">" + content(2) + "</m>";
    }
    return "<m '" + one_of({"/", "/", "/", path(2)}) + "' path='htdocs'>" + content(4) + nested + "</m>";
}

void Chance::package(const Site& site, unsigned things)
{
    site.metadata(mappings());
    const std::string htdocs = site.package("htdocs/");
    put(htdocs + "f1", "f1");
    put(htdocs + "z/f1", "f1");
    for (; things > 0; --things) {
        const std::string path = htdocs + this->path(4), file = "/f" + std::to_string(things);
        const std::string content = one_of({"x", "y", "xx", std::string(below(3000), ' ')});
        once_in(8) ? make(path) : put(path + one_of({"/f1", "/b", file, file, file}), content);
    }
    for (unsigned odd = once_in(2) ? below(4) : 0; odd > 0; --odd) {
        const std::string path = htdocs + this->path(3) + one_of({"", "/A", "/z"});
        const std::string end = one_of({"f1", "a", htdocs + "b", "nowhere", "/etc/passwd"});
        switch (below(6)) {
        case 0: ::mkfifo(path.c_str(), 0644); break;
        case 1: put(path, "closed", 0600); break;
        case 2: make(path, 0700); break;
        default: link(end, path);
        }
    }
}

void Chance::populate(const std::string& directory, unsigned things)
{
    for (; things > 0; --things) {
        const std::string path = directory + "/" + this->path(3) + one_of({"", "", "/f1", "/b"});
        make(path.substr(0, path.rfind('/')));
        const std::string end = one_of({".", "..", "a", "a-b", "../b", "c/d", "nowhere", directory + "/b"});
        switch (below(8)) {
        case 0: link(end, path); break;
        case 1: put(path + one_of({"/own", "/f1", "/f2"}), "x"); break;
        case 2:
        case 3:
        case 4: make(path); break;
        default: put(path, one_of({"x", "y", "xx"}));
        }
        constexpr uid_t owners[] = {kAlice, kAlice, kAlice, kBob, 0, 33};
        constexpr gid_t groups[] = {kClients, kClients, kServices, 0};
        own(path, owners[below(6)], groups[below(4)]);
        // The last three are for files: "plan" takes for failures what cannot be searched in what can be read.
        constexpr mode_t modes[] = {0500, 0700, 0777, 01777, 02755, 02775, 0300, 0757, 0600, 0644, 0646};
        struct stat status;
        if (once_in(2) && ::lstat(path.c_str(), &status) == 0 && !S_ISLNK(status.st_mode))
            ::chmod(path.c_str(), modes[below(std::size(modes) - (S_ISDIR(status.st_mode) ? 3 : 0))]);
    }
    if (once_in(3))
        return;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(directory)) {
        if (fs::is_directory(entry.symlink_status()))  // what it takes to get in
            own(entry.path().native(), kAlice, -1);
    }
}

std::string Chance::instance(const Site& site)
{
    Words listed = {"a"};
    for (unsigned files = 20 + below(150); files > 0; --files) {
        const std::string path = this->path(4);
        listed.push_back(path + "/f" + std::to_string(files));
        put(site.docroot(listed.back()), "f");
        listed.push_back(once_in(3) ? path : one_of(listed));
    }
    // Links that are listed and lead to what is listed, so that it matters which goes first.
    for (unsigned links = below(4); links > 0; --links) {
        const std::string path = this->path(2) + one_of({"", "l"});
        link(one_of({".", "..", "a", "a-b", "c/d", "/", "nowhere", site.docroot("b")}), site.docroot(path));
        listed.push_back(one_of({"./", "b/../", "", ""}) + path);
        for (unsigned times = 20; times > 0; --times)
            listed.push_back(one_of({path, one_of({"a", "b", "c"}) + "/l"}) + "/" + one_of(listed));
    }
    for (const std::string odd : {"a/", "a//b", "c/.", "d/f1/x", "no/f1", "/e"}) {
        if (once_in(16))
            listed.push_back(odd);
    }
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(site.docroot()))
        own(entry.path().native(), kAlice, kClients);
    for (const std::string& path : listed) {
        if (once_in(60))
            own(site.docroot(path), kBob, kServices);
    }
    return site.list(listed);
}

}  // namespace sandbox
