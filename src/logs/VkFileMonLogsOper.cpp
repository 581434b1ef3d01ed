#include "logs/VkFileMonLogsOper.h"

#include <algorithm>
#include <utility>

// What the client and the notification center hold on to. It forwards to the instance while
// the instance lives; the instance's destructor cuts the link under the lock, so a delivery
// that is running on another thread finishes before the instance is gone.
class VkFileMonLogsOper::Receiver : public VkFileMonLogsDelegate {
  public:
    explicit Receiver(VkFileMonLogsOper* owner) : owner_(owner) {}

    void refreshFileMonLogsData(const std::vector<uint8_t>& archive) override {
        std::lock_guard lock(mutex_);
        if (owner_)
            owner_->refreshFileMonLogsData(archive);
    }
    void registerNetClientDidEnd(const VkNotification& notification) {
        std::lock_guard lock(mutex_);
        if (owner_)
            owner_->registerNetClientDidEnd(notification);
    }
    void detach() {
        std::lock_guard lock(mutex_);
        owner_ = nullptr;
    }

  private:
    // Recursive: a listener told of a change may call back into the instance's client.
    std::recursive_mutex mutex_;
    VkFileMonLogsOper* owner_;
};

VkFileMonLogsOper::VkFileMonLogsOper(std::shared_ptr<VkContext> ctx)
    : ctx_(std::move(ctx)), netClient_(ctx_->netClient) {
    receiver_ = std::make_shared<Receiver>(this);
    if (netClient_) {
        // The list is fetched before subscribing: a change pushed in between then arrives
        // through the subscription instead of being appended to the list a second time.
        if (std::optional<std::vector<uint8_t>> bytes = netClient_->fileMonLogs()) {
            auto items = VkFileMonLogsItem::unarchiveItems(*bytes);
            if (items && *items) {
                std::lock_guard lock(mutex_);
                fileMonLogsArray_.insert(fileMonLogsArray_.end(), (*items)->begin(),
                                         (*items)->end());
            }
        }
        netClient_->registerFileMonLogsDelegate(receiver_);
    }
    if (ctx_->notificationCenter) {
        std::weak_ptr<Receiver> weak = receiver_;
        observer_ = ctx_->notificationCenter->addObserver(
            kRegisterNetClientDidEnd, nullptr, [weak](const VkNotification& notification) {
                if (auto receiver = weak.lock())
                    receiver->registerNetClientDidEnd(notification);
            });
    }
}

VkFileMonLogsOper::~VkFileMonLogsOper() {
    if (ctx_->notificationCenter)
        ctx_->notificationCenter->removeObserver(observer_);
    receiver_->detach();
}

std::shared_ptr<VkFileMonLogsOper> VkFileMonLogsOper::sharedOper() {
    static std::shared_ptr<VkFileMonLogsOper> shared =
        std::make_shared<VkFileMonLogsOper>(VkContext::defaultContext());
    return shared;
}

void VkFileMonLogsOper::addFileMonLogsDelegate(
    std::shared_ptr<VkFileMonLogsOperDelegate> delegate) {
    if (!delegate)
        return;
    std::lock_guard lock(mutex_);
    if (std::find(delegateArray_.begin(), delegateArray_.end(), delegate) == delegateArray_.end())
        delegateArray_.push_back(std::move(delegate));
}

void VkFileMonLogsOper::refreshFileMonLogsData(const std::vector<uint8_t>& archive) {
    auto items = VkFileMonLogsItem::unarchiveItems(archive);
    // Malformed bytes and an archive of nil leave everything as it was.
    if (!items || !*items)
        return;
    {
        std::lock_guard lock(mutex_);
        fileMonLogsArray_ = std::move(**items);
    }
    refreshDelegate();
}

void VkFileMonLogsOper::registerNetClientDidEnd(const VkNotification&) {
    if (netClient_)
        netClient_->registerFileMonLogsDelegate(receiver_);
}

void VkFileMonLogsOper::refreshDelegate() {
    // Called outside the lock: a listener reads the list back.
    std::vector<std::shared_ptr<VkFileMonLogsOperDelegate>> delegates;
    {
        std::lock_guard lock(mutex_);
        delegates = delegateArray_;
    }
    for (const auto& delegate : delegates)
        delegate->refreshLogsData();
}

void VkFileMonLogsOper::removeAllLogs() {
    {
        std::lock_guard lock(mutex_);
        fileMonLogsArray_.clear();
    }
    if (netClient_)
        netClient_->removeAllFileMonLogs();
    refreshDelegate();
}

uint64_t VkFileMonLogsOper::logsFileCount() const {
    std::lock_guard lock(mutex_);
    return fileMonLogsArray_.size();
}

VkFileMonLogsItem::Items VkFileMonLogsOper::fileMonLogsArray() const {
    std::lock_guard lock(mutex_);
    return fileMonLogsArray_;
}
