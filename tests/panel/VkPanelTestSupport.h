#pragma once
// What the panel's flow and look tests share: an engine that never reaches the network, and a
// wait that serves the event loop.

#include <QCoreApplication>
#include <QElapsedTimer>
#include <functional>
#include <memory>

#include "center/VkTorjanCenter.h"
#include "database/VkAddTorjanItems.h"

// The real engine, except that the signature check answers at once that the server could
// not be reached (no network in tests, and no update loop left running).
class VkOfflineCenter : public VkTorjanCenter {
  public:
    using VkTorjanCenter::VkTorjanCenter;
    void startUpdate(std::shared_ptr<VkAddTorjanDelegate> delegate) override {
        if (delegate)
            delegate->updateTrojanData(false, std::nullopt);
    }
};

// Serves events until pred holds or the limit passes; pred's last answer.
inline bool serveUntil(const std::function<bool()>& pred, int limitMs = 30000) {
    QElapsedTimer timer;
    timer.start();
    while (!pred() && timer.elapsed() < limitMs)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 20);
    return pred();
}
