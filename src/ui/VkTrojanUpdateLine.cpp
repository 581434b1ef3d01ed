#include "ui/VkTrojanUpdateLine.h"

#include <cstdio>
#include <ctime>

#include "center/VkTorjanCenter.h"

namespace {

// Spelt as stored data has it.
constexpr const char* kLastSecurityUpdateTime = "LastSecurityUpdateTime";

// Replaces the first "%@" of a localized format by the argument; "%%" becomes "%".
std::string formatWithString(const std::string& format, const std::optional<std::string>& arg) {
    std::string out;
    bool used = false;
    for (size_t i = 0; i < format.size(); ++i) {
        if (format[i] == '%' && i + 1 < format.size()) {
            char next = format[i + 1];
            if (next == '%') {
                out += '%';
                ++i;
                continue;
            }
            if (next == '@' && !used && arg) {
                out += *arg;
                used = true;
                ++i;
                continue;
            }
        }
        out += format[i];
    }
    return out;
}

// The date as "YYYY-MM-dd" in local time. "YYYY" is the week-based year (weeks start on
// Sunday, the week holding 1 January is the first), so the last days of December can
// show the next year; the update line has always shown dates this way.
std::string weekYearDateText(double secondsSince1970) {
    time_t seconds = static_cast<time_t>(secondsSince1970);
    tm local{};
    localtime_r(&seconds, &local);
    int year = local.tm_year + 1900;
    if (local.tm_mon == 11) {
        int daysToNewYear = 31 - local.tm_mday + 1;
        int newYearWeekday = (local.tm_wday + daysToNewYear) % 7;
        // The Sunday that starts the week of 1 January falls on 32 - weekday of December.
        if (newYearWeekday != 0 && local.tm_mday >= 32 - newYearWeekday)
            ++year;
    }
    char buffer[32];
    snprintf(buffer, sizeof buffer, "%d-%02d-%02d", year, local.tm_mon + 1, local.tm_mday);
    return buffer;
}

}  // namespace

VkTrojanUpdateLine::VkTrojanUpdateLine(std::shared_ptr<VkContext> context,
                                       std::shared_ptr<VkTorjanCenter> center)
    : context_(std::move(context)), torjanCenter_(std::move(center)) {}

std::string VkTrojanUpdateLine::localized(const std::string& key) const {
    return context_->localizer ? context_->localizer->localizedString(key) : key;
}

void VkTrojanUpdateLine::checkUpdate(std::shared_ptr<VkAddTorjanDelegate> delegate) {
    view_->setHidden("updateButton", true);
    view_->setHidden("updateIndicator", false);
    torjanCenter_->startUpdate(std::move(delegate));
    view_->setText("lastUpdateText", localized("Security-1-11-1"));
}

void VkTrojanUpdateLine::refreshUpdateInfo() {
    std::optional<VkDate> date = context_->userDefaults->dateForKey(kLastSecurityUpdateTime);
    // The date the first signatures shipped, written as it always has been.
    std::string dateText = date ? weekYearDateText(date->secondsSince1970) : "2013-2-27";
    view_->setText("lastUpdateText", localized("Security-1-11") + dateText);
    view_->setHidden("updateButton", false);
    view_->setHidden("updateIndicator", true);
}

void VkTrojanUpdateLine::updateTrojanData(bool success, std::optional<VkDate> updateDate) {
    std::weak_ptr<VkTrojanUpdateLine> weak = weak_from_this();
    context_->mainQueue->async([weak, success, updateDate] {
        auto self = weak.lock();
        if (!self || !self->view_)
            return;
        VkPanelView& view = *self->view_;
        view.setHidden("updateIndicator", true);
        if (!success) {
            view.setText("lastUpdateText", self->localized("Security-50-1"));
        } else {
            auto& defaults = *self->context_->userDefaults;
            std::optional<VkDate> stored = defaults.dateForKey(kLastSecurityUpdateTime);
            if (stored && updateDate && *stored == *updateDate) {
                view.setText("lastUpdateText",
                             formatWithString(self->localized("Security-50-2"), std::nullopt));
            } else {
                VkDate date = updateDate.value_or(self->context_->clock->date());
                view.setText("lastUpdateText",
                             formatWithString(self->localized("Security-1-11-2"),
                                              weekYearDateText(date.secondsSince1970)));
                view.setHidden("updateButton", true);
                defaults.setObject(kLastSecurityUpdateTime, VkPlist(date));
            }
        }
        self->context_->mainQueue->asyncAfter(2.0, [weak] {
            if (auto later = weak.lock())
                later->refreshUpdateInfo();
        });
    });
}
