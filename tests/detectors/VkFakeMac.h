#pragma once

#include <memory>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "detectors/VkSpecialResult.h"
#include "fakes/VkRecordingCoreFunction.h"
#include "fakes/VkRecordingPacing.h"
#include "fakes/VkTempDir.h"
#include "platform/VkContext.h"
#include "platform/VkFileUtil.h"
#include "platform/VkPlist.h"

using Paths = std::vector<std::string>;

// A fake Mac tree in a temporary folder: the context's system root is <tmp>/root, the
// inspected home "/Users/tester", core operations recorded, nothing sleeps. The removal
// tests work on it too.
class VkFakeMacTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ctx = VkContext::forTesting(dir.path());
        core = std::make_shared<VkRecordingCoreFunction>(ctx->systemRoot, ctx->dataFolder);
        ctx->coreFunction = core;
        pacing = std::make_shared<VkRecordingPacing>();
        ctx->pacing = pacing;
    }

    // A detector on the fake Mac's services (VkAntiTrojan takes the pacing too).
    template <class Detector, class... More>
    Detector make(More... more) const {
        return Detector(ctx->inspectedSystem(), ctx->coreFunction, ctx->systemLog, more...);
    }

    // An inspected path ("~" allowed) as a path on this machine.
    std::string onDisk(const std::string& inspected) const {
        return ctx->resolve(ctx->expandTilde(inspected));
    }

    // Plants a fake Mac tree from a table of {inspected path, bytes}: a path ending in "/" is a
    // folder, bytes "->target" a symbolic link. Answers the paths on this machine, in order.
    std::vector<std::string> plant(
        const std::vector<std::pair<std::string, std::string>>& files) const {
        std::vector<std::string> paths;
        for (const auto& [inspected, bytes] : files) {
            bool folder = inspected.ends_with('/');
            std::string path =
                onDisk(folder ? inspected.substr(0, inspected.size() - 1) : inspected);
            VkFile::createDirectory(folder ? path : VkFile::deletingLastPathComponent(path), true);
            bool made = bytes.starts_with("->") ? ::symlink(bytes.c_str() + 2, path.c_str()) == 0
                        : folder                ? true
                                                : VkFile::writeAtomically(path, bytes).ok();
            EXPECT_TRUE(made) << path;
            paths.push_back(path);
        }
        return paths;
    }
    std::string writeFile(const std::string& inspected, const std::string& bytes) const {
        return plant({{inspected, bytes}})[0];
    }
    std::string writePlist(const std::string& inspected, const VkPlist& plist) const {
        return writeFile(inspected, plist.toXml());
    }
    static std::string bin(const VkPlist& plist) {
        std::vector<uint8_t> bytes = plist.toBinary();
        return std::string(bytes.begin(), bytes.end());
    }

    // A launch item that starts `program`.
    static VkPlist launchItem(const std::string& program) {
        return VkPlist::dictionary({{"Label", "com.example.item"}, {"Program", program}});
    }
    static VkPlist launchItemWithArguments(VkPlist arguments) {
        return VkPlist::dictionary(
            {{"Label", "com.example.item"}, {"ProgramArguments", arguments}});
    }

    // Scans with a launch-agent or Flashback detector, recording its progress calls and
    // what it could not read. Each call asks to stop: only the combined detector may honour
    // that, between the two.
    template <class Detector>
    VkSpecialResult scan(Detector&& detector) {
        skips.clear();
        return detector.scan(
            [this](const std::string& name, float value) {
                progress.emplace_back(name, value);
                return true;
            },
            &skips);
    }
    VkDetectorSkips skips;

    // The recorded core calls, one "op [(files)] arg..." line each.
    std::vector<std::string> coreCalls() const {
        std::vector<std::string> lines;
        for (const auto& call : core->calls()) {
            bool filesOnly = call.op == "startClean" && call.scope == VkCleanScope::filesOnly;
            std::string line = call.op + (filesOnly ? " (files)" : "");
            for (const auto& arg : call.args)
                line += " " + arg;
            lines.push_back(line);
        }
        return lines;
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
