#include "detectors/VkLaunchItem.h"

#include <sys/stat.h>

#include "platform/VkFileUtil.h"

namespace VkLaunchItem {

std::optional<VkPlist> readDictionary(const std::string& path, VkSystemLog* log,
                                      uint32_t* owner) {
    // The owner is that of the very file read, not of whatever the path names a moment later.
    struct stat info {};
    VkResult<VkPlist> parsed = VkError{""};
    if (auto bytes = VkFile::readAll(path, kMaxPlistBytes, &info)) {
        parsed = VkPlist::parse(bytes->data(), bytes->size());
        if (!parsed)
            parsed = VkError{path + ": " + parsed.error()};
    } else {
        parsed = VkError{bytes.error()};
    }
    if (parsed && parsed->isDictionary()) {
        if (owner)
            *owner = static_cast<uint32_t>(info.st_uid);
        return std::move(parsed).value();
    }
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
