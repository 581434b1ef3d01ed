#pragma once

#include <memory>
#include <string>
#include <vector>

#include "center/VkTorjanCenter.h"

// A scan center that records what the panel starts instead of starting it, unless a test
// lets it through to the real engine. The signature update is only ever recorded.
class VkScriptedCenter : public VkTorjanCenter {
  public:
    using VkTorjanCenter::VkTorjanCenter;

    void startScan(const std::optional<std::vector<std::string>>& paths,
                   std::shared_ptr<VkTorjanScanDelegate> delegate) override {
        calls.push_back(paths ? "startScan " + std::to_string(paths->size()) : "startScan full");
        if (realEngine)
            VkTorjanCenter::startScan(paths, std::move(delegate));
    }
    void startQuickScan(std::shared_ptr<VkTorjanScanDelegate> delegate) override {
        calls.push_back("startQuickScan");
        if (realEngine)
            VkTorjanCenter::startQuickScan(std::move(delegate));
    }
    void stopCurrentScan() override {
        calls.push_back("stopCurrentScan");
        if (realEngine)
            VkTorjanCenter::stopCurrentScan();
    }
    void startUpdate(std::shared_ptr<VkAddTorjanDelegate>) override {
        calls.push_back("startUpdate");
    }
    void killTorjanItem(ResultList items,
                        std::shared_ptr<VkKillTorjansDelegate> delegate) override {
        calls.push_back("killTorjanItem " + std::to_string(items.size()));
        if (realEngine)
            VkTorjanCenter::killTorjanItem(std::move(items), std::move(delegate));
    }

    bool realEngine = false;
    std::vector<std::string> calls;
};
