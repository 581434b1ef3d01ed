#include "detectors/VkLaunchItem.h"

#include "platform/VkFileUtil.h"

namespace VkLaunchItem {

std::optional<VkPlist> readDictionary(const std::string& path, VkSystemLog* log) {
    auto parsed = VkPlist::readFile(path, kMaxPlistBytes);
    if (parsed && parsed->isDictionary())
        return std::move(parsed).value();
    // A file that is there but unreadable is told: a trojan may spoil its own list on purpose
    // to pass unseen.
    bool isDirectory = false;
    if (log && VkFile::exists(path, &isDirectory) && !isDirectory)
        log->log("[VkAnti] skip " + (parsed ? path + ": not a dictionary" : parsed.error()));
    return std::nullopt;
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
