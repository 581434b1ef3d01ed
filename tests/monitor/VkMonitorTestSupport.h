#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <vector>

#include "fakes/VkTestBytes.h"
#include "fakes/VkTestSignatures.h"
#include "logs/VkFileMonLogsItem.h"
#include "platform/VkContext.h"
#include "platform/VkFileUtil.h"

// Helpers shared by the file-monitor tests.
namespace vkmon {

// Polls pred every few milliseconds until it holds or `seconds` have passed.
inline bool waitUntil(const std::function<bool()>& pred, double seconds = 10) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return pred();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

// Adds a signature database `file` to the data folder with one record matching `contents`.
inline void addSignature(const std::shared_ptr<VkContext>& ctx, const std::string& file,
                         const std::string& name, const std::string& contents) {
    VkFile::createDirectory(ctx->dataFolder, true, 0700);
    vkWriteSignatureDatabase(VkFile::join(ctx->dataFolder, file), file, "1",
                             {{name, contents, {}}});
}

// A record of a download of `path` found as OSX/Test.A.
inline std::shared_ptr<VkFileMonLogsItem> record(const std::string& path, double downloaded = 100) {
    auto item = std::make_shared<VkFileMonLogsItem>();
    item->setFilePath(path);
    item->setTrojanName("OSX/Test.A");
    item->setDownLoadTime(VkDate{downloaded});
    item->setLogTime(VkDate{500});
    return item;
}

inline std::vector<std::string> pathsOf(const VkFileMonLogsItem::Items& items) {
    std::vector<std::string> paths;
    for (const auto& item : items)
        paths.push_back(item->filePath().value_or("?"));
    return paths;
}

inline int permissionsOf(const std::string& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0)
        return -1;
    return static_cast<int>(st.st_mode & 07777);
}

}  // namespace vkmon
