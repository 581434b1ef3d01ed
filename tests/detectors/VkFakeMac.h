#pragma once

#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/VkRecordingCoreFunction.h"
#include "fakes/VkRecordingPacing.h"
#include "fakes/VkTempDir.h"
#include "platform/VkContext.h"
#include "platform/VkFileUtil.h"
#include "platform/VkPlist.h"

// A fake Mac tree in a temporary folder: the context's system root is <tmp>/root, the
// inspected home "/Users/tester", core operations recorded, nothing sleeps.
class VkFakeMacTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ctx = VkContext::forTesting(dir.path());
        core = std::make_shared<VkRecordingCoreFunction>(ctx->systemRoot, ctx->dataFolder);
        ctx->coreFunction = core;
        pacing = std::make_shared<VkRecordingPacing>();
        ctx->pacing = pacing;
    }

    // A detector (VkAgentTrojan, VkFlashBack, or with pacing VkAntiTrojan) on the fake
    // Mac's services.
    template <class Detector>
    Detector make() const {
        if constexpr (std::is_constructible_v<Detector, VkInspectedSystem,
                                              std::shared_ptr<VkCoreFunction>,
                                              std::shared_ptr<VkSystemLog>>)
            return Detector(ctx->inspectedSystem(), ctx->coreFunction, ctx->systemLog);
        else
            return Detector(ctx->inspectedSystem(), ctx->coreFunction, ctx->systemLog, pacing);
    }

    // An inspected path ("~" allowed) as a path on this machine.
    std::string onDisk(const std::string& inspected) const {
        return ctx->resolve(ctx->expandTilde(inspected));
    }

    std::string writePlist(const std::string& inspected, const VkPlist& plist,
                           bool binary = false) const {
        std::string path = onDisk(inspected);
        VkFile::createDirectory(VkFile::deletingLastPathComponent(path), true);
        auto written = binary ? plist.writeBinaryFile(path) : plist.writeXmlFile(path);
        EXPECT_TRUE(written.ok()) << written.error();
        return path;
    }

    std::string writeFile(const std::string& inspected, const std::string& bytes) const {
        std::string path = onDisk(inspected);
        VkFile::createDirectory(VkFile::deletingLastPathComponent(path), true);
        EXPECT_TRUE(VkFile::writeAtomically(path, bytes).ok());
        return path;
    }

    // A launch item that starts `program`.
    static VkPlist launchItem(const std::string& program) {
        return VkPlist::dictionary({{"Label", "com.example.item"}, {"Program", program}});
    }
    static VkPlist launchItemWithArguments(VkPlist arguments) {
        return VkPlist::dictionary(
            {{"Label", "com.example.item"}, {"ProgramArguments", arguments}});
    }

    // Scans with a launch-agent or Flashback detector, recording its progress calls. Each
    // call asks to stop: only the combined detector may honour that, between the two.
    template <class Detector>
    VkSpecialResult scan(Detector&& detector) {
        return detector.scan([this](const std::string& name, float value) {
            progress.emplace_back(name, value);
            return true;
        });
    }

    std::vector<std::string> logLines() const {
        return std::dynamic_pointer_cast<VkCapturedLog>(ctx->systemLog)->lines();
    }

    VkTempDir dir;
    std::shared_ptr<VkContext> ctx;
    std::shared_ptr<VkRecordingCoreFunction> core;
    std::shared_ptr<VkRecordingPacing> pacing;
    std::vector<std::pair<std::string, float>> progress;
};
