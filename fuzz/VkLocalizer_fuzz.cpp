// The strings tables of the resource folder (Localizable.strings).
#include <cstddef>
#include <cstdint>
#include <string>

#include "VkFuzzSupport.h"
#include "platform/VkLocalizer.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    auto table = VkLocalizer::parseStrings(text);
    // Every key and value comes from the text, so none can be longer than it.
    for (const auto& [key, value] : table)
        VK_FUZZ_CHECK(key.size() + value.size() <= size);
    return 0;
}
