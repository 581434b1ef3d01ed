#include "logs/VkScanLogsNode.h"

#include <algorithm>

VkScanLogsNode::VkScanLogsNode(VkDate now) : logTime_(now) {}

VkScanLogsNode::VkScanLogsNode(const VkPlist& dict, VkDate now) : logTime_(now) {
    if (const VkPlist* v = dict.get("ScanTime"))
        scanTime_ = v->asDate();
    if (const VkPlist* v = dict.get("ScanType"))
        scanType_ = static_cast<int32_t>(v->asInt64().value_or(0));
    if (const VkPlist* v = dict.get("LogCreateTime"); v && v->asDate())
        logTime_ = *v->asDate();
    if (const VkPlist* items = dict.get("ScanItems"); items && items->asArray()) {
        for (const auto& element : *items->asArray()) {
            if (element.isDictionary())
                scanLogsItemArray_.push_back(std::make_shared<VkScanLogsItem>(element));
        }
    }
}

VkPlist VkScanLogsNode::convertToDict() const {
    VkPlist::Array items;
    items.reserve(scanLogsItemArray_.size());
    for (const auto& item : scanLogsItemArray_)
        items.push_back(item->convertToDict());
    VkPlist dict = VkPlist::dictionary({{"ScanType", VkPlist::integer(scanType_)},
                                        {"LogCreateTime", logTime_},
                                        {"ScanItems", VkPlist(std::move(items))}});
    if (scanTime_)
        dict.set("ScanTime", *scanTime_);
    return dict;
}

void VkScanLogsNode::addScanItem(const std::shared_ptr<VkScanLogsItem>& item) {
    if (std::find(scanLogsItemArray_.begin(), scanLogsItemArray_.end(), item) !=
        scanLogsItemArray_.end()) {
        return;
    }
    scanLogsItemArray_.push_back(item);
}
