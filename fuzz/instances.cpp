#include "app/InstanceList.h"

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <stdexcept>
#include <string>

namespace {

constexpr uid_t kSiteUser = 65534;

}  // namespace

/// As a site user, for whom the system converts whatever encoding a list is in.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const uid_t self = ::geteuid();
    static_cast<void>(::seteuid(self == 0 ? kSiteUser : self));
    std::stringstream in(std::string(reinterpret_cast<const char*>(data), size));
    try {
        tarvik::InstanceFiles files = tarvik::parse_instance_list(in);
        for (const tarvik::InstanceFile& file : files) {
            std::string path;
            file.append_path(path);
            std::string key(file.key());
            std::replace(key.begin(), key.end(), '\0', '/');
            if (path.empty() || (file.plain() && path != key))
                std::abort();
        }
    } catch (const std::runtime_error&) {
    }
    static_cast<void>(::seteuid(self));  // the fuzzer's own files are root's
    return 0;
}
