#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "ui/VkListView.h"

// A list window that records what the screen logic asked of it; clicked and selected rows
// are set by the test.
class VkRecordingListView : public VkListView {
  public:
    void reloadData() override { ++reloads; }
    void setSortIndicator(VkListColumn column, std::optional<std::string> indicator) override {
        indicators[column] = indicator;
        ++indicatorCalls;
    }
    void setText(const std::string& control, const std::string& text) override {
        texts[control] = text;
    }
    void revealInFileViewer(const std::string& path) override { revealed.push_back(path); }
    void close() override {}
    std::optional<int64_t> clickedRow() const override { return clicked; }
    std::optional<int64_t> selectedRow() const override { return selected; }
    bool confirm(const std::string& message, const std::string&, const std::string&) override {
        asked.push_back("confirm " + message);
        return answer;
    }
    void showAlert(const std::string& message, const std::string&) override {
        asked.push_back("alert " + message);
    }

    // The indicator shown on a column ("" when none).
    std::string indicatorOn(VkListColumn column) const {
        auto it = indicators.find(column);
        return it == indicators.end() ? std::string() : it->second.value_or(std::string());
    }

    int reloads = 0;
    int indicatorCalls = 0;
    std::map<VkListColumn, std::optional<std::string>> indicators;
    std::map<std::string, std::string> texts;
    std::vector<std::string> revealed;
    std::optional<int64_t> clicked;
    std::optional<int64_t> selected;
    // What the user is asked or told, in order, and the answer to every question.
    std::vector<std::string> asked;
    bool answer = true;
};
