// Keyed archives of plain values: the kill lists of signature databases.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "VkFuzzSupport.h"
#include "platform/VkKeyedArchiver.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto value =
        VkKeyedUnarchiver::unarchiveObjectWithData(std::vector<uint8_t>(data, data + size));
    if (!value)
        return 0;
    // `vksig` writes kill lists back when it edits a record; what it writes reads again.
    auto archived = VkKeyedArchiver::archivedDataWithRootObject(VkArchivedValue(*value));
    if (archived)
        VK_FUZZ_CHECK(VkKeyedUnarchiver::unarchiveObjectWithData(*archived).ok());
    return 0;
}
