#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "engine/VkTorjanScan.h"
#include "fakes/VkRecordingPacing.h"
#include "fakes/VkTempDir.h"
#include "fakes/VkTestBytes.h"
#include "platform/VkContext.h"
#include "platform/VkHashValue.h"

// Synthetic files and the plain-text records that match them, shared by the engine's tests.
inline constexpr uint64_t kMiB = 1048576;

inline std::string md5(const std::string& bytes) {
    return *VkHashValue::hashWithData(bytes.data(), static_cast<uint32_t>(bytes.size()), 0);
}

// A record as a loaded and deciphered one is; over 1 MiB its head code is that of the first
// mebibyte, or of other bytes when rightHead is false.
inline std::shared_ptr<VkTorjanItem> recordFor(const std::string& name, const std::string& contents,
                                               bool rightHead = true) {
    auto item = std::make_shared<VkTorjanItem>();
    item->setName(name);
    item->setFileSize(contents.size());
    item->setTorjanCode(md5(contents));
    if (contents.size() > kMiB)
        item->setHeadeCode(md5(rightHead ? contents.substr(0, kMiB) : vkTestBytes(kMiB, 9)));
    return item;
}

// A scanner on a context of the test's own, its pacing recorded (never sleeping).
template <class Scan = VkTorjanScan>
class VkEngineScanTest : public ::testing::Test {
  protected:
    // The scanner's judgment of one file against these records.
    std::shared_ptr<VkTorjanResultItems> check(const std::string& path,
                                               std::vector<std::shared_ptr<VkTorjanItem>> records) {
        return scan->checkTorjan(path, VkTorjanRecordList::make(std::move(records)));
    }

    VkTempDir dir;
    std::shared_ptr<VkContext> ctx = VkContext::forTesting(dir.path());
    std::shared_ptr<VkRecordingPacing> pacing = std::make_shared<VkRecordingPacing>();
    std::unique_ptr<Scan> scan =
        std::make_unique<Scan>(ctx->systemRoot, ctx->dataFolder, ctx->userDefaults, pacing);
};
