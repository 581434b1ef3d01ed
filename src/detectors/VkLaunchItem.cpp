#include "detectors/VkLaunchItem.h"

namespace VkLaunchItem {

std::optional<VkPlist> readDictionary(const std::string& path) {
    auto parsed = VkPlist::readFile(path, kMaxPlistBytes);
    if (!parsed || !parsed->isDictionary())
        return std::nullopt;
    return std::move(parsed).value();
}

std::optional<std::string> programOf(const VkPlist& item) {
    if (const VkPlist* program = item.get("Program")) {
        if (const std::string* text = program->asString())
            return *text;
        return std::nullopt;
    }
    const VkPlist* arguments = item.get("ProgramArguments");
    if (!arguments)
        return std::nullopt;
    const VkPlist::Array* list = arguments->asArray();
    if (!list || list->empty())
        return std::nullopt;
    if (const std::string* first = list->front().asString())
        return *first;
    return std::nullopt;
}

}  // namespace VkLaunchItem
