#pragma once

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "ui/VkPanelView.h"

// A window kept in memory: it remembers every control's state as the screen logic left
// it, and logs each call as one line ("setHidden cancelButton 0", "reloadData
// torjanResultView") so a test can check order as well as outcome. Controls that were
// never touched are shown, enabled, empty and at the origin. Frames given by a test with
// setFrame stand for the interface file's layout; a drawn width is 7 points a byte.
class VkRecordingPanelView : public VkPanelView {
  public:
    void setHidden(const std::string& control, bool hidden) override {
        log("setHidden " + control + (hidden ? " 1" : " 0"));
        hidden_[control] = hidden;
    }
    bool isHidden(const std::string& control) const override { return get(hidden_, control); }
    void setEnabled(const std::string& control, bool enabled) override {
        log("setEnabled " + control + (enabled ? " 1" : " 0"));
    }
    void setText(const std::string& control, const std::string& text) override {
        log("setText " + control + " " + text);
        texts_[control] = text;
        styled_.erase(control);
    }
    std::string text(const std::string& control) const override { return get(texts_, control); }
    void setStyledText(const std::string& control, const VkStyledText& text) override {
        log("setStyledText " + control + " " + text.text);
        texts_[control] = text.text;
        styled_[control] = text;
    }
    std::optional<VkStyledText> styledText(const std::string& control) const {
        return styled_.count(control) ? std::optional(styled_.at(control)) : std::nullopt;
    }
    double drawnWidth(const VkStyledText& text) const override { return 7.0 * text.text.size(); }
    void setImage(const std::string& control, const VkPanelImage& image) override {
        log("setImage " + control + " " + describe(image));
        images_[control] = image;
    }
    VkPanelImage image(const std::string& control) const { return get(images_, control); }
    // The control's image in words: "none", a resource name, "icon:<path>", "button:<title>".
    std::string shows(const std::string& control) const { return describe(image(control)); }
    void setProgress(const std::string& control, double value) override {
        log("setProgress " + control + " " + std::to_string(value));
        progress_[control] = value;
    }
    double progress(const std::string& control) const { return get(progress_, control); }
    int32_t state(const std::string& control) const override { return get(states_, control); }
    void setState(const std::string& control, int32_t state) override {
        log("setState " + control + " " + std::to_string(state));
        states_[control] = state;
    }

    VkRect frame(const std::string& control) const override { return get(frames_, control); }
    void setFrame(const std::string& control, const VkRect& frame) override {
        frames_[control] = frame;
    }
    void setOrigin(const std::string& control, VkPoint origin) override {
        log("setOrigin " + control + " " + std::to_string(origin.x) + " " +
            std::to_string(origin.y));
        frames_[control].origin = origin;
    }

    void addSubview(const std::string& parent, const std::string& child) override {
        log("addSubview " + parent + " " + child);
        removeChild(child);
        children_[parent].push_back(child);
    }
    void removeFromSuperview(const std::string& child) override {
        log("removeFromSuperview " + child);
        removeChild(child);
    }
    bool isSubview(const std::string& parent, const std::string& child) const override {
        auto list = subviews(parent);
        return std::find(list.begin(), list.end(), child) != list.end();
    }
    std::vector<std::string> subviews(const std::string& parent) const {
        return get(children_, parent);
    }
    void beginSheet(const std::string& sheet) override {
        log("beginSheet " + sheet);
        openSheets_.insert(sheet);
    }
    void endSheet(const std::string& sheet) override {
        log("endSheet " + sheet);
        openSheets_.erase(sheet);
    }
    bool isSheetOpen(const std::string& sheet) const { return openSheets_.count(sheet) > 0; }

    void reloadData(const std::string& outline) override { log("reloadData " + outline); }
    void setSortIndicator(const std::string& column,
                          const std::optional<std::string>& indicator) override {
        log("setSortIndicator " + column + " " + indicator.value_or("-"));
        indicators_[column] = indicator.value_or("");
    }
    // The indicator on a column ("" when none).
    std::string indicatorOn(const std::string& column) const { return get(indicators_, column); }
    std::optional<int64_t> clickedRow(const std::string&) const override { return clicked; }
    std::optional<int64_t> selectedRow(const std::string&) const override { return selected; }

    void revealInFileViewer(const std::string& path) override {
        log("revealInFileViewer " + path);
        revealed.push_back(path);
    }

    // Every call so far, one line each; cleared by the test when it wants a fresh start.
    std::vector<std::string> calls;
    std::vector<std::string> revealed;
    std::optional<int64_t> clicked;
    std::optional<int64_t> selected;

    bool called(const std::string& line) const {
        return std::find(calls.begin(), calls.end(), line) != calls.end();
    }

    static std::string describe(const VkPanelImage& image) {
        switch (image.kind) {
            case VkPanelImage::Kind::none:
                return "none";
            case VkPanelImage::Kind::resource:
                return image.name;
            case VkPanelImage::Kind::icon:
                return "icon:" + (image.icon.path.empty() ? image.icon.type : image.icon.path);
            case VkPanelImage::Kind::button:
                return "button:" + image.title;
        }
        return "?";
    }

  private:
    // The value kept for a control, or the untouched control's value.
    template <typename Map>
    static typename Map::mapped_type get(const Map& map, const std::string& key) {
        auto it = map.find(key);
        return it == map.end() ? typename Map::mapped_type{} : it->second;
    }
    void log(std::string line) { calls.push_back(std::move(line)); }
    void removeChild(const std::string& child) {
        for (auto& [parent, list] : children_)
            list.erase(std::remove(list.begin(), list.end(), child), list.end());
    }

    std::map<std::string, bool> hidden_;
    std::map<std::string, std::string> texts_;
    std::map<std::string, VkStyledText> styled_;
    std::map<std::string, VkPanelImage> images_;
    std::map<std::string, double> progress_;
    std::map<std::string, int32_t> states_;
    std::map<std::string, VkRect> frames_;
    std::map<std::string, std::vector<std::string>> children_;
    std::set<std::string> openSheets_;
    std::map<std::string, std::string> indicators_;
};
