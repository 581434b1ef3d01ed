#pragma once

#include <QObject>
#include <QPointer>
#include <memory>

#include "platform/VkMainQueue.h"

// The main queue of the panel: work runs on the thread of the Qt application object, through
// its event loop, so nothing from a scan, removal or update worker ever touches a widget
// directly. Every operation is safe from any thread. Build it on the main thread, after the
// QApplication.
class VkQtMainQueue : public VkMainQueue {
  public:
    // `timeScale` multiplies every delay and interval: 1 for the panel, less in tests that
    // must not wait out the panel's one-second pauses.
    explicit VkQtMainQueue(double timeScale = 1.0);
    ~VkQtMainQueue() override;

    void async(std::function<void()> fn) override;
    void asyncAfter(double seconds, std::function<void()> fn) override;
    std::shared_ptr<VkTimer> scheduledTimer(double interval, bool repeats,
                                            std::function<void()> fn) override;
    bool isMainThread() const override;

  private:
    class Timer;
    // Lives on the main thread; work posted to it runs there. Deleting it (when the queue
    // goes) drops what is still queued instead of running it on a dead panel.
    QPointer<QObject> receiver_;
    double timeScale_;
};
