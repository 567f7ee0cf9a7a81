#include "app/InstanceList.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <stdexcept>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
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
    return 0;
}
