// Signature database files: `vksig verify` checks one read-only, the scan opens it with the
// store and deciphers every record.
#include <cstddef>
#include <cstdint>
#include <string>

#include "VkFuzzSupport.h"
#include "database/VkDataBaseCheck.h"
#include "database/VkSqliteManager.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto ctx = vkFuzzContext();
    VkFile::createDirectory(ctx->dataFolder, true);
    const std::string path = ctx->dataPath("fuzz.sql");
    if (!VkFile::writeAtomically(path, data, size))
        return 0;

    VkDataBaseCheck::verify(path);
    {
        VkSqliteManager store(ctx);
        store.dataBaseForPath(path);
        store.openDataBase(path);
        for (const auto& stored : store.TorjanItemArray()) {
            VkTorjanItem item(*stored);
            item.deCodeTrojanInfo();
        }
    }
    VkFile::removeTree(ctx->dataFolder);
    return 0;
}
