#include "app/fsappmetadata.h"
#include "common/ExSystemError.h"
#include "fuzz/MemoryFile.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const MemoryFile file(data, size);
    try {
        const tarvik::FSAMetaDataReader reader(file.path());
        for (const tarvik::FSAMetaDataWebContent& content : reader.webContents())
            if (content.url.empty() || content.url.front() != '/' || content.depth < 1)
                std::abort();
    } catch (const tarvik::FSAXMLException&) {
    }
    return 0;
}
