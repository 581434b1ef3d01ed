#include "panel/VkQtMainQueue.h"

#include <QCoreApplication>
#include <QMetaObject>
#include <QThread>
#include <QTimer>
#include <algorithm>
#include <atomic>

// A QTimer on the main thread. invalidate() may come from any thread: the flag stops every
// later firing at once; the QTimer notices at its next tick and goes away on its own thread.
class VkQtMainQueue::Timer : public VkTimer, public std::enable_shared_from_this<Timer> {
  public:
    Timer(bool repeats, std::function<void()> fn) : repeats_(repeats), fn_(std::move(fn)) {}

    void start(QObject* receiver, double interval) {
        std::weak_ptr<Timer> weak = shared_from_this();
        int ms = static_cast<int>(std::max(0.0, interval) * 1000.0);
        QMetaObject::invokeMethod(
            receiver,
            [weak, receiver, ms] {
                auto self = weak.lock();
                if (!self || !self->isValid())
                    return;
                auto* timer = new QTimer(receiver);
                timer->setInterval(ms);
                QObject::connect(timer, &QTimer::timeout, timer, [weak, timer] {
                    auto fired = weak.lock();
                    if (!fired || !fired->isValid()) {
                        timer->stop();
                        timer->deleteLater();
                        return;
                    }
                    if (!fired->repeats_) {
                        fired->invalidate();
                        timer->stop();
                        timer->deleteLater();
                    }
                    fired->fn_();
                });
                timer->start();
            },
            Qt::QueuedConnection);
    }

    void invalidate() override { valid_.store(false); }
    bool isValid() const override { return valid_.load(); }

  private:
    bool repeats_;
    std::function<void()> fn_;
    std::atomic<bool> valid_{true};
};

VkQtMainQueue::VkQtMainQueue(double timeScale)
    : receiver_(new QObject()), timeScale_(std::max(0.0, timeScale)) {
    receiver_->moveToThread(QCoreApplication::instance()->thread());
}

VkQtMainQueue::~VkQtMainQueue() {
    if (receiver_)
        receiver_->deleteLater();
}

void VkQtMainQueue::async(std::function<void()> fn) {
    if (receiver_)
        QMetaObject::invokeMethod(receiver_, std::move(fn), Qt::QueuedConnection);
}

void VkQtMainQueue::asyncAfter(double seconds, std::function<void()> fn) {
    int ms = static_cast<int>(std::max(0.0, seconds) * timeScale_ * 1000.0);
    QPointer<QObject> receiver = receiver_;
    if (!receiver)
        return;
    // The single shot is armed on the main thread, whose event loop times it.
    QMetaObject::invokeMethod(
        receiver,
        [receiver, ms, fn = std::move(fn)]() mutable {
            if (receiver)
                QTimer::singleShot(ms, receiver, std::move(fn));
        },
        Qt::QueuedConnection);
}

std::shared_ptr<VkTimer> VkQtMainQueue::scheduledTimer(double interval, bool repeats,
                                                       std::function<void()> fn) {
    auto timer = std::make_shared<Timer>(repeats, std::move(fn));
    if (receiver_)
        timer->start(receiver_, interval * timeScale_);
    return timer;
}

bool VkQtMainQueue::isMainThread() const {
    return QThread::currentThread() == QCoreApplication::instance()->thread();
}
