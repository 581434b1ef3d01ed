#include "logs/VkScanLogsItem.h"

#include "engine/VkTorjanItem.h"
#include "engine/VkTorjanResultItems.h"

VkScanLogsItem::VkScanLogsItem(const VkPlist& dict) {
    if (const std::string* s = dict.getString("FilePath"))
        filePath_ = *s;
    if (const VkPlist* v = dict.get("FileSize"))
        fileSize_ = v->asUInt64().value_or(0);
    if (const VkPlist* v = dict.get("OperType"))
        operType_ = static_cast<int32_t>(v->asInt64().value_or(0));
    if (const std::string* s = dict.getString("TrojanName"))
        trojanName_ = *s;
}

VkScanLogsItem::VkScanLogsItem(const VkTorjanResultItems& result, int32_t operType)
    : filePath_(result.shownPath()), fileSize_(result.fileSize()), operType_(operType) {
    // The record's name only: a special detector's finding has no record and is logged
    // without a name.
    if (auto item = result.torjanItem())
        trojanName_ = item->name();
}

VkPlist VkScanLogsItem::convertToDict() const {
    VkPlist dict = VkPlist::dictionary({{"FilePath", filePath_},
                                        {"FileSize", VkPlist::unsignedInteger(fileSize_)},
                                        {"OperType", VkPlist::integer(operType_)}});
    if (trojanName_)
        dict.set("TrojanName", *trojanName_);
    return dict;
}
