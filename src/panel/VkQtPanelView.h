#pragma once

#include <QPointer>
#include <QWidget>
#include <memory>

#include "panel/VkQtScreens.h"
#include "ui/VkPanelView.h"

class VkQtOutlineView;

// A screen's window for its logic: controls are found by object name in the screen's own
// widget tree (its top view answers to "view"), then among the panel's screens. Geometry is
// given with the origin at the bottom left of the parent, as the logic counts it, and turned
// into Qt's top-left frames here. A view taken out of the window waits, unseen, on the
// panel's shelf, keeping its frame until it is added again. Main thread only.
class VkQtPanelView : public VkPanelView {
  public:
    VkQtPanelView(QWidget* root, std::shared_ptr<VkQtScreens> screens);
    ~VkQtPanelView() override;

    void setHidden(const std::string& control, bool hidden) override;
    bool isHidden(const std::string& control) const override;
    void setEnabled(const std::string& control, bool enabled) override;
    void setText(const std::string& control, const std::string& text) override;
    std::string text(const std::string& control) const override;
    void setStyledText(const std::string& control, const VkStyledText& text) override;
    double drawnWidth(const VkStyledText& text) const override;
    void setImage(const std::string& control, const VkPanelImage& image) override;
    void setProgress(const std::string& control, double value) override;
    int32_t state(const std::string& control) const override;
    void setState(const std::string& control, int32_t state) override;
    VkRect frame(const std::string& control) const override;
    void setFrame(const std::string& control, const VkRect& frame) override;
    void setOrigin(const std::string& control, VkPoint origin) override;
    void addSubview(const std::string& parent, const std::string& child) override;
    void removeFromSuperview(const std::string& child) override;
    bool isSubview(const std::string& parent, const std::string& child) const override;
    void beginSheet(const std::string& sheet) override;
    void endSheet(const std::string& sheet) override;
    void reloadData(const std::string& outline) override;
    void setSortIndicator(const std::string& column,
                          const std::optional<std::string>& indicator) override;
    std::optional<int64_t> clickedRow(const std::string& outline) const override;
    std::optional<int64_t> selectedRow(const std::string& outline) const override;
    void revealInFileViewer(const std::string& path) override;
    bool confirm(const std::string& message, const std::string& confirmTitle,
                 const std::string& cancelTitle) override;
    void showAlert(const std::string& message, const std::string& closeTitle) override;

    // The named control (null when there is none).
    QWidget* widget(const std::string& name) const;
    // Takes a view out of the window onto the shelf, keeping its frame.
    void shelve(QWidget* view);
    QWidget* root() const { return root_; }
    const std::shared_ptr<VkQtScreens>& screens() const { return screens_; }

  private:
    VkQtOutlineView* outlineWithColumn(const std::string& column) const;
    // The views this window put on the shelf (each with what it holds).
    QList<QWidget*> shelvedHere() const;
    bool isShelved(const QWidget* view) const;
    // Whether the view waits on a shelf that lies inside this window's top view.
    bool onShelfInside(const QWidget* view) const;
    VkRect frameOf(const QWidget* view) const;
    void applyFrame(QWidget* view, const VkRect& frame);
    QFont fontFor(const VkStyledText& text) const;

    QPointer<QWidget> root_;
    std::shared_ptr<VkQtScreens> screens_;
};
