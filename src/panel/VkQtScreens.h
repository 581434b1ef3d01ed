#pragma once

#include <QHash>
#include <QPointer>
#include <QString>
#include <QWidget>
#include <functional>
#include <string>

// The panel's screens by their interface-file names ("VkTrojanMainController",
// "VkTrustFileController", ...), so one screen's logic can place another screen's view,
// plus what all screens share: the resource folder and the file viewer. Main thread only.
class VkQtScreens {
  public:
    explicit VkQtScreens(std::string resourceFolder) : resourceFolder_(std::move(resourceFolder)) {}

    void add(const std::string& name, QWidget* screen);
    // The screen's top view, or null.
    QWidget* find(const std::string& name) const;

    const std::string& resourceFolder() const { return resourceFolder_; }

    // Opens a file viewer on the file's folder with the file selected.
    void revealInFileViewer(const std::string& path) const;
    // Replaces the file viewer (tests record instead).
    void setRevealer(std::function<void(const std::string&)> revealer) {
        revealer_ = std::move(revealer);
    }

  private:
    std::string resourceFolder_;
    QHash<QString, QPointer<QWidget>> screens_;
    std::function<void(const std::string&)> revealer_;
};
