#include "remediation/VkQuarantineFileItem.h"

namespace {

std::optional<std::string> stringAt(const VkPlist& dict, const char* key) {
    if (const std::string* s = dict.getString(key))
        return *s;
    return std::nullopt;
}

}  // namespace

VkQuarantineFileItem::VkQuarantineFileItem(const VkPlist& dict)
    : filePath_(stringAt(dict, "filePath")),
      trojanName_(stringAt(dict, "trojanName")),
      originalPath_(stringAt(dict, "originalPath")) {
    if (const VkPlist* size = dict.get("fileSize"))
        fileSize_ = size->asUInt64().value_or(0);
    pending_ = dict.get("pending") && dict.get("pending")->asBool().value_or(false);
    foundOnReconcile_ =
        dict.get("foundOnReconcile") && dict.get("foundOnReconcile")->asBool().value_or(false);
}

VkPlist VkQuarantineFileItem::convertToDict() const {
    // A record without a trojan name (a special detector's finding) is written with an
    // empty name instead of stopping the save, so the quarantine survives a restart.
    VkPlist dict = VkPlist::dictionary({{"filePath", filePath_.value_or("")},
                                        {"fileSize", VkPlist::unsignedInteger(fileSize_)},
                                        {"trojanName", trojanName_.value_or("")},
                                        {"originalPath", originalPath_.value_or("")}});
    if (pending_)
        dict.set("pending", VkPlist::boolean(true));
    if (foundOnReconcile_)
        dict.set("foundOnReconcile", VkPlist::boolean(true));
    return dict;
}
