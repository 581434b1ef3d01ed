#pragma once

#include <QLabel>
#include <QPointer>
#include <QPropertyAnimation>
#include <QWidget>
#include <functional>
#include <optional>
#include <string>
#include <vector>

// The area on which the user drops files and folders (or clicks to pick one) for a custom
// scan. An anchor picture bobs while something is dragged over it.
class VkTrojanDragView : public QWidget {
    Q_OBJECT
  public:
    // The words drawn under the anchor, from the strings table.
    static QString caption();
    using DragDelegate = std::function<void(const std::vector<std::string>& paths)>;
    // Asks the user for one file or folder; nothing when cancelled.
    using FilePicker =
        std::function<std::optional<std::string>(QWidget* parent, const QString& prompt)>;

    explicit VkTrojanDragView(QWidget* parent = nullptr);

    // Loads the anchor picture, centres it 5 points above the middle.
    void awakeFromNib(const std::string& resourceFolder, const QString& openPrompt);
    // Told once per drop (or pick), with every path in the order they came.
    void setTrojanDragDelegate(DragDelegate delegate) { trojanDragDelegate_ = std::move(delegate); }
    // Replaces the open-file dialog (tests answer without a dialog).
    void setFilePicker(FilePicker picker) { filePicker_ = std::move(picker); }
    // What the open panel says when a typed path is not there.
    void setMissingPathText(const QString& text) { missingPathText_ = text; }

    void startAnimationAnchor();
    void stopAnimationAnchor();
    bool isAnimating() const;
    QLabel* anchorImageView() const { return anchorImageView_; }

    // Hides or shows the anchor together with the view.
    void setVisible(bool visible) override;

    // The click area that opens the picker: the bounds less 30 points left and right and
    // 15 points top and bottom.
    QRect pickArea() const { return rect().adjusted(30, 15, -30, -15); }

  protected:
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dragMoveEvent(QDragMoveEvent* event) override;
    void dragLeaveEvent(QDragLeaveEvent* event) override;
    void dropEvent(QDropEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;

  private:
    void placeAnchor();
    std::optional<std::string> openPanel(QWidget* parent, const QString& prompt) const;

    QLabel* anchorImageView_;
    QPointer<QPropertyAnimation> animation_;
    DragDelegate trojanDragDelegate_;
    FilePicker filePicker_;
    QString openPrompt_;
    QString missingPathText_;
};
