// Hash lists read by `vksig import-hdb`.
#include <cstddef>
#include <cstdint>
#include <string>

#include "VkFuzzSupport.h"
#include "VkSigHdbList.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    VkHdbList list = vkSigParseHdbList(std::string(reinterpret_cast<const char*>(data), size), "f");
    for (const auto& record : list.records)
        VK_FUZZ_CHECK(record.code.size() == 32 && record.size > 0 && !record.name.empty());
    return 0;
}
