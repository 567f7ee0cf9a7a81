#pragma once

#include "tests/support/Sandbox.h"

#include <string>

namespace sandbox {

/**
 * An Apache of its own on the loopback interface, serving a site's document root. Its modules are taken as
 * the option -D asks for them, PHP's unless it says "nophp".
 */
class Apache {
public:
    /// @param settings  put at the end of the configuration; expanded by a shell in the site's directory.
    Apache(const Site& site, const std::string& settings);
    Apache(const Apache&) = delete;
    ~Apache() { stop(); }

    /// @return a command for a shell. @param options  for the server.
    std::string command(const std::string& options) const;
    int check(const std::string& options) const { return run({"sh", "-c", command("-t " + options)}).status; }
    void restart(const std::string& options);
    void stop();
    /// @return status, redirection target and body. @param path  as it is to be sent.
    std::string get(const std::string& path, const std::string& data = "--get") const;
    const std::string& address() const { return address_; }

private:
    const Site& site_;
    pid_t server_ = 0;
    /// This process's own: the last 24 bits may be written as one number.
    const std::string address_;
};

}  // namespace sandbox
