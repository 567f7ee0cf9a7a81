#include "clib/read_configuration.h"

#include "fuzz/MemoryFile.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const MemoryFile file(data, size);
    auto* const table = static_cast<conf_table*>(std::calloc(1, sizeof(conf_table)));
    if (conf_read_file_r(file.path().c_str(), table) != 0)
        std::abort();
    for (std::uint64_t i = 0; i < table->count; ++i)
        if (conf_get_r(table->entries[i].name, table) != table->entries[i].value)
            std::abort();
    static_cast<void>(conf_get_r("HTTPD_VHOSTS_D", table));
    conf_free_r(table);
    return 0;
}
