// The file monitor's records file (and the archives the monitor sends the panel): read at every
// start of the monitor, rewritten at once.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "VkFuzzSupport.h"
#include "logs/VkFileMonLogsItem.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto items = VkFileMonLogsItem::unarchiveItems(std::vector<uint8_t>(data, data + size));
    if (!items || !*items)
        return 0;
    // The monitor keeps what it read and writes it again with its next record: records it
    // read must stay writable and read back whole, or the monitor could never save again.
    auto archived = VkFileMonLogsItem::archiveItems(**items);
    VK_FUZZ_CHECK(archived.ok());
    auto again = VkFileMonLogsItem::unarchiveItems(*archived);
    VK_FUZZ_CHECK(again && *again && (*again)->size() == (*items)->size());
    return 0;
}
