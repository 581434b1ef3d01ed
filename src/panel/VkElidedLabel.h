#pragma once

#include <QLabel>

// A one-line label that never cuts a glyph: a text too long for it is drawn shortened with
// "…" (at the end, or in the middle for paths: the property "elideMode"), and the whole text
// is its tool tip while it is shortened. It asks its layout for little width, so a long
// text shortens instead of widening the window. Rich and wrapped texts are drawn as QLabel
// draws them, with the tool tip when they do not fit.
class VkElidedLabel : public QLabel {
    Q_OBJECT
    Q_PROPERTY(Qt::TextElideMode elideMode READ elideMode WRITE setElideMode)
  public:
    explicit VkElidedLabel(QWidget* parent = nullptr);

    Qt::TextElideMode elideMode() const { return elideMode_; }
    void setElideMode(Qt::TextElideMode mode);
    // The text as drawn now.
    QString shownText() const;
    QSize minimumSizeHint() const override;

  protected:
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;

  private:
    bool isPlain() const;
    void updateToolTip();

    Qt::TextElideMode elideMode_ = Qt::ElideRight;
};
