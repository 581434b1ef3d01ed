// Property lists, XML and binary: launch items, defaults, manifests, the scan history and the
// quarantine list are all read through VkPlist::parse.
#include <cstddef>
#include <cstdint>
#include <string>

#include "VkFuzzSupport.h"
#include "platform/VkPlist.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto parsed = VkPlist::parse(data, size);
    if (!parsed)
        return 0;
    // What was read is written back (the program rewrites the lists it keeps) in both forms,
    // and what it writes it can read again.
    std::string xml = parsed->toXml();
    auto fromXml = VkPlist::parse(xml.data(), xml.size());
    VK_FUZZ_CHECK(fromXml.ok());
    auto binary = parsed->toBinary();
    auto fromBinary = VkPlist::parse(binary.data(), binary.size());
    VK_FUZZ_CHECK(fromBinary.ok());
    return 0;
}
