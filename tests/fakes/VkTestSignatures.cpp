#include "fakes/VkTestSignatures.h"

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
