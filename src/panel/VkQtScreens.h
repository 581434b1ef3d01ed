#pragma once

#include <QHash>
#include <QPointer>
#include <QString>
#include <QWidget>
#include <functional>
#include <memory>
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

    // Where views taken out of a window wait, unseen: a hidden widget that the panel owns
    // (setShelf), or one of this registry's own when the panel gave none.
    QWidget* shelf();
    void setShelf(QWidget* shelf) { shelf_ = shelf; }

    // Opens a file viewer on the file's folder with the file selected.
    void revealInFileViewer(const std::string& path) const;
    // Replaces the file viewer (tests record instead).
    void setRevealer(std::function<void(const std::string&)> revealer) {
        revealer_ = std::move(revealer);
    }

    // Asks before what cannot be undone (a message box by default); true to go on.
    using Confirmer = std::function<bool(QWidget* parent, const QString& message,
                                         const QString& confirmTitle, const QString& cancelTitle)>;
    bool confirm(QWidget* parent, const QString& message, const QString& confirmTitle,
                 const QString& cancelTitle) const;
    // Replaces the question (tests and unattended runs answer without a dialog).
    void setConfirmer(Confirmer confirmer) { confirmer_ = std::move(confirmer); }
    // Says that something failed (a message box that does not block, by default).
    using Alerter =
        std::function<void(QWidget* parent, const QString& message, const QString& closeTitle)>;
    void alert(QWidget* parent, const QString& message, const QString& closeTitle) const;
    void setAlerter(Alerter alerter) { alerter_ = std::move(alerter); }

  private:
    std::string resourceFolder_;
    QPointer<QWidget> shelf_;
    std::unique_ptr<QWidget> ownShelf_;
    QHash<QString, QPointer<QWidget>> screens_;
    std::function<void(const std::string&)> revealer_;
    Confirmer confirmer_;
    Alerter alerter_;
};
