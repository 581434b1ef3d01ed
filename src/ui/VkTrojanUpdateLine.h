#pragma once

#include <memory>
#include <optional>

#include "database/VkAddTorjanItems.h"
#include "platform/VkContext.h"
#include "ui/VkPanelView.h"

class VkTorjanCenter;

// The signature update line of the trojan screens: the date of the last update, the check
// button and what an update run reports ("lastUpdateText", "updateButton",
// "updateIndicator"). Main thread, except updateTrojanData, which hops to the main queue.
// Build it with std::make_shared: the queued work holds it weakly.
class VkTrojanUpdateLine : public VkAddTorjanDelegate,
                           public std::enable_shared_from_this<VkTrojanUpdateLine> {
  public:
    VkTrojanUpdateLine(std::shared_ptr<VkContext> context, std::shared_ptr<VkTorjanCenter> center);

    // Not owned; must outlive this line's use of it.
    void setView(VkPanelView* view) { view_ = view; }

    // Shows the date of the last stored update (or the first signatures' date) and the
    // button.
    void refreshUpdateInfo();
    // Starts an update check that reports to `delegate`; the line says so until it ends.
    void checkUpdate(std::shared_ptr<VkAddTorjanDelegate> delegate);
    // The end of an update run: stores a new date and shows it, or says why not; the
    // stored date comes back two seconds later.
    void updateTrojanData(bool success, std::optional<VkDate> updateDate) override;

  private:
    std::string localized(const std::string& key) const;

    std::shared_ptr<VkContext> context_;
    std::shared_ptr<VkTorjanCenter> torjanCenter_;
    VkPanelView* view_ = nullptr;
};
