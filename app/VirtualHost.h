#pragma once

#include <string>

namespace tarvik::layout {

/// Where the files of one virtual host lie.
class VirtualHost {
public:
    /// @param name  the host's name. @param root  the root of all virtual hosts.
    VirtualHost(const std::string& name, const std::string& root);

    const std::string& name() const noexcept { return name_; }

    /// @return the directory of the host's configuration, ending in "/".
    std::string conf() const;

private:
    std::string name_;
    std::string root_;
};

}  // namespace tarvik::layout
