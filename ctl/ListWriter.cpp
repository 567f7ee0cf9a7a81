#include "ctl/ListWriter.h"

#include "ctl/Output.h"
#include "ctl/Trouble.h"

#include <algorithm>

namespace tarvik::ctl {

namespace {

std::string xml_escaped(const std::string& text)
{
    std::string out;
    for (const char byte : text) {
        switch (byte) {
        case '&':
            out += "&amp;";
            break;
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '\r':
            out += "&#13;";
            break;
        default:
            out += byte;
        }
    }
    return out;
}

}  // namespace

bool fits_a_list(const std::string& path)
{
    const bool controls = std::any_of(path.begin(), path.end(), [](unsigned char byte) {
        return byte < 0x20 && byte != '\t' && byte != '\n' && byte != '\r';
    });
    return !controls && path.find("\xef\xbf\xbe") == std::string::npos
        && path.find("\xef\xbf\xbf") == std::string::npos && is_utf8(path);
}

std::string instance_list(const std::vector<std::string>& paths)
{
    std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                       "<INSTANCE-DATA>\n<SECTION PREFIX=\"htdocs\">\n";
    for (const std::string& path : paths) {
        if (!fits_a_list(path))
            throw Trouble("no list of files can hold this name: " + path);
        if (!path.empty())
            text += "<FILE>" + xml_escaped(path) + "</FILE>\n";
    }
    return text + "</SECTION>\n</INSTANCE-DATA>\n";
}

}  // namespace tarvik::ctl
