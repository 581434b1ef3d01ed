#include "platform/VkNotificationCenter.h"

#include <algorithm>

VkNotificationCenter::Token VkNotificationCenter::addObserver(const std::string& name,
                                                              const void* sender,
                                                              Observer observer) {
    std::lock_guard lock(mutex_);
    Token token = next_++;
    entries_.push_back({token, name, sender, std::make_shared<Observer>(std::move(observer))});
    return token;
}

void VkNotificationCenter::removeObserver(Token token) {
    std::lock_guard lock(mutex_);
    std::erase_if(entries_, [token](const Entry& e) { return e.token == token; });
}

void VkNotificationCenter::post(const VkNotification& notification) {
    // Deliver outside the lock so that observers may post or (un)register themselves.
    std::vector<std::shared_ptr<Observer>> targets;
    {
        std::lock_guard lock(mutex_);
        for (const auto& e : entries_) {
            if (e.name == notification.name && (!e.sender || e.sender == notification.sender)) {
                targets.push_back(e.observer);
            }
        }
    }
    for (const auto& observer : targets)
        (*observer)(notification);
}

void VkNotificationCenter::post(const std::string& name, const void* sender, VkPlist object,
                                VkPlist userInfo) {
    post(VkNotification{name, sender, std::move(object), std::move(userInfo)});
}
