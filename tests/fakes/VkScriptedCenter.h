#pragma once

#include <memory>
#include <string>
#include <vector>

#include "center/VkTorjanCenter.h"

// A scan center that records what the panel starts instead of starting it.
class VkScriptedCenter : public VkTorjanCenter {
  public:
    using VkTorjanCenter::VkTorjanCenter;

    void startScan(const std::optional<std::vector<std::string>>& paths,
                   std::shared_ptr<VkTorjanScanDelegate>) override {
        calls.push_back(paths ? "startScan " + std::to_string(paths->size()) : "startScan full");
    }
    void startQuickScan(std::shared_ptr<VkTorjanScanDelegate>) override {
        calls.push_back("startQuickScan");
    }
    void stopCurrentScan() override { calls.push_back("stopCurrentScan"); }
    void startUpdate(std::shared_ptr<VkAddTorjanDelegate>) override {
        calls.push_back("startUpdate");
    }
    void killTorjanItem(ResultList items, std::shared_ptr<VkKillTorjansDelegate>) override {
        calls.push_back("killTorjanItem " + std::to_string(items.size()));
    }

    std::vector<std::string> calls;
};
