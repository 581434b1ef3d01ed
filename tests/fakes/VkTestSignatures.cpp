#include "fakes/VkTestSignatures.h"

#include <chrono>

#include "database/VkDataBaseInfo.h"
#include "database/VkSqliteManager.h"
#include "platform/VkContext.h"
#include "platform/VkHashValue.h"

void vkWriteSignatureDatabase(const std::string& path, const std::string& dbName,
                              const std::string& version,
                              const std::vector<VkTestSignature>& signatures) {
    VkSqliteManager manager(VkContext::forTesting("/nonexistent-vk-test"));
    manager.openDataBase(path);
    manager.addDataBaseInfo(std::make_shared<VkDataBaseInfo>(dbName, version));
    for (const auto& sig : signatures) {
        auto item = std::make_shared<VkTorjanItem>();
        item->setName(sig.name);
        item->setDetail("test signature");
        item->setFileSize(sig.contents.size());
        item->setTorjanCode(VkHashValue::hashWithData(
            sig.contents.data(), static_cast<uint32_t>(sig.contents.size()), 0));
        if (sig.contents.size() > 1048576)
            item->setHeadeCode(VkHashValue::hashWithData(sig.contents.data(), 1048576, 0));
        if (!sig.kill.empty())
            item->setKillArray(VkTorjanItem::makeKillArray(sig.kill));
        item->enCodeTrojanInfo();
        manager.addItemToDataBase(item);
    }
    manager.closeDataBase();
}

void VkRecordingScanDelegate::addTorjanPath(const std::shared_ptr<VkTorjanResultItems>& item) {
    std::lock_guard lock(mutex_);
    results_.push_back(item);
}

void VkRecordingScanDelegate::addTorjanPathWithObj(const std::shared_ptr<VkTorjanResultItems>& item,
                                                   const std::any& senderObj) {
    std::lock_guard lock(mutex_);
    answers_.emplace_back(item, senderObj);
}

bool VkRecordingScanDelegate::scanTorjanProcess(float progress,
                                                const std::optional<std::string>& item) {
    {
        std::lock_guard lock(mutex_);
        progress_.push_back({progress, item});
        if (!item)
            ++ends_;
    }
    changed_.notify_all();
    return false;
}

bool VkRecordingScanDelegate::waitForEnd(double seconds, size_t count) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::duration<double>(seconds),
                             [&] { return ends_ >= count; });
}

std::vector<std::string> VkRecordingScanDelegate::resultPaths() const {
    std::vector<std::string> out;
    for (const auto& r : results())
        out.push_back(r->path().value_or(""));
    return out;
}
