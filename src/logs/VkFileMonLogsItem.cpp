#include "logs/VkFileMonLogsItem.h"

#include <utility>

#include "platform/VkUtf8.h"

namespace {

// The binary archive stores text as UTF-8 only (other bytes become U+FFFD, which can name
// another file), so a text that is not UTF-8 is also stored as data under key + "Data", and
// read back from there first. Archives without it are read as before.
std::string dataKey(const char* key) {
    return std::string(key) + "Data";
}

void encodeText(VkKeyedArchiver& coder, const std::optional<std::string>& text, const char* key) {
    coder.encodeObject(text, key);
    if (text && (!VkUtf8::isValid(*text) || text->find('\0') != std::string::npos))
        coder.encodeObject(VkPlist(VkPlist::Data(text->begin(), text->end())), dataKey(key));
}

std::optional<std::string> decodeText(VkKeyedUnarchiver& coder, const char* key) {
    if (auto bytes = coder.decodeDataForKey(dataKey(key)))
        return std::string(bytes->begin(), bytes->end());
    return coder.decodeStringForKey(key);
}

}  // namespace

VkFileMonLogsItem::VkFileMonLogsItem(const VkFileMonLogsItem& other) : VkCodable(other) {
    std::lock_guard lock(other.mutex_);
    filePath_ = other.filePath_;
    processPath_ = other.processPath_;
    processName_ = other.processName_;
    trojanName_ = other.trojanName_;
    downLoadTime_ = other.downLoadTime_;
    logTime_ = other.logTime_;
}

VkFileMonLogsItem& VkFileMonLogsItem::operator=(const VkFileMonLogsItem& other) {
    if (this == &other)
        return *this;
    std::scoped_lock lock(mutex_, other.mutex_);
    filePath_ = other.filePath_;
    processPath_ = other.processPath_;
    processName_ = other.processName_;
    trojanName_ = other.trojanName_;
    downLoadTime_ = other.downLoadTime_;
    logTime_ = other.logTime_;
    return *this;
}

std::shared_ptr<VkFileMonLogsItem> VkFileMonLogsItem::initWithDict(const VkPlist& dict) {
    auto item = std::make_shared<VkFileMonLogsItem>();
    auto text = [&dict](const char* key) -> std::optional<std::string> {
        const std::string* value = dict.getString(key);
        return value ? std::optional<std::string>(*value) : std::nullopt;
    };
    auto date = [&dict](const char* key) -> std::optional<VkDate> {
        const VkPlist* value = dict.get(key);
        return value ? value->asDate() : std::nullopt;
    };
    item->setFilePath(text(kFilePathKey));
    item->setProcessName(text(kProcessNameKey));
    item->setProcessPath(text(kProcessPathKey));
    item->setTrojanName(text(kTrojanNameKey));
    item->setDownLoadTime(date(kDownLoadTimeKey));
    item->setLogTime(date(kLogCreateTimeKey));
    return item;
}

std::optional<VkPlist> VkFileMonLogsItem::convertToDict() const {
    std::lock_guard lock(mutex_);
    if (!downLoadTime_ || !logTime_)
        return std::nullopt;
    VkPlist dict = VkPlist::dictionary();
    if (filePath_)
        dict.set(kFilePathKey, *filePath_);
    if (processName_)
        dict.set(kProcessNameKey, *processName_);
    if (processPath_)
        dict.set(kProcessPathKey, *processPath_);
    if (trojanName_)
        dict.set(kTrojanNameKey, *trojanName_);
    dict.set(kDownLoadTimeKey, *downLoadTime_);
    dict.set(kLogCreateTimeKey, *logTime_);
    return dict;
}

void VkFileMonLogsItem::encodeWithCoder(VkKeyedArchiver& coder) const {
    std::lock_guard lock(mutex_);
    encodeText(coder, filePath_, kFilePathCoderKey);
    encodeText(coder, processName_, kProcessNameCoderKey);
    encodeText(coder, processPath_, kProcessPathCoderKey);
    encodeText(coder, trojanName_, kTrojanNameCoderKey);
    coder.encodeObject(downLoadTime_, kDownLoadTimeCoderKey);
    coder.encodeObject(logTime_, kLogTimeCoderKey);
}

std::shared_ptr<VkCodable> VkFileMonLogsItem::initWithCoder(VkKeyedUnarchiver& coder) {
    auto item = std::make_shared<VkFileMonLogsItem>();
    item->setFilePath(decodeText(coder, kFilePathCoderKey));
    item->setProcessName(decodeText(coder, kProcessNameCoderKey));
    item->setProcessPath(decodeText(coder, kProcessPathCoderKey));
    item->setTrojanName(decodeText(coder, kTrojanNameCoderKey));
    item->setDownLoadTime(coder.decodeDateForKey(kDownLoadTimeCoderKey));
    item->setLogTime(coder.decodeDateForKey(kLogTimeCoderKey));
    return item;
}

void VkFileMonLogsItem::registerClass(VkKeyedUnarchiver& unarchiver) {
    unarchiver.registerClass(kClassName, &VkFileMonLogsItem::initWithCoder);
}

VkResult<std::optional<VkFileMonLogsItem::Items>> VkFileMonLogsItem::unarchiveItems(
    const std::vector<uint8_t>& bytes) {
    VkKeyedUnarchiver unarchiver;
    registerClass(unarchiver);
    VkResult<VkArchivedValue> root = unarchiver.unarchiveRootObject(bytes);
    if (!root)
        return VkError{root.error()};
    if (root->isNil())
        return std::optional<Items>();
    const VkArchivedValue::Array* array = root->asArray();
    if (!array)
        return VkError{"the archive's root is not an array of records"};
    Items items;
    items.reserve(array->size());
    for (const VkArchivedValue& value : *array) {
        // A list we cannot hold whole is refused whole rather than shown in part.
        auto item = value.asObject<VkFileMonLogsItem>();
        if (!item)
            return VkError{"the archive holds something that is not a file-monitor record"};
        items.push_back(std::move(item));
    }
    return std::optional<Items>(std::move(items));
}

VkResult<std::vector<uint8_t>> VkFileMonLogsItem::archiveItems(const Items& items) {
    VkArchivedValue::Array array;
    array.reserve(items.size());
    for (const auto& item : items) {
        if (item)
            array.emplace_back(item);
    }
    return VkKeyedArchiver::archivedDataWithRootObject(VkArchivedValue(std::move(array)));
}

std::optional<std::string> VkFileMonLogsItem::filePath() const {
    std::lock_guard lock(mutex_);
    return filePath_;
}
void VkFileMonLogsItem::setFilePath(std::optional<std::string> value) {
    std::lock_guard lock(mutex_);
    filePath_ = std::move(value);
}
std::optional<std::string> VkFileMonLogsItem::processPath() const {
    std::lock_guard lock(mutex_);
    return processPath_;
}
void VkFileMonLogsItem::setProcessPath(std::optional<std::string> value) {
    std::lock_guard lock(mutex_);
    processPath_ = std::move(value);
}
std::optional<std::string> VkFileMonLogsItem::processName() const {
    std::lock_guard lock(mutex_);
    return processName_;
}
void VkFileMonLogsItem::setProcessName(std::optional<std::string> value) {
    std::lock_guard lock(mutex_);
    processName_ = std::move(value);
}
std::optional<std::string> VkFileMonLogsItem::trojanName() const {
    std::lock_guard lock(mutex_);
    return trojanName_;
}
void VkFileMonLogsItem::setTrojanName(std::optional<std::string> value) {
    std::lock_guard lock(mutex_);
    trojanName_ = std::move(value);
}
std::optional<VkDate> VkFileMonLogsItem::downLoadTime() const {
    std::lock_guard lock(mutex_);
    return downLoadTime_;
}
void VkFileMonLogsItem::setDownLoadTime(std::optional<VkDate> value) {
    std::lock_guard lock(mutex_);
    downLoadTime_ = value;
}
std::optional<VkDate> VkFileMonLogsItem::logTime() const {
    std::lock_guard lock(mutex_);
    return logTime_;
}
void VkFileMonLogsItem::setLogTime(std::optional<VkDate> value) {
    std::lock_guard lock(mutex_);
    logTime_ = value;
}
