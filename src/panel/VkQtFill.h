#pragma once

#include <QObject>

class QWidget;

// Screens that follow the size of the view they are shown in. The logic hands a screen the
// frame of the screen it replaces; a screen marked in its interface file with the property
// "vkFill" covers its parent instead, and keeps covering it as the window is resized:
// "vkFillTop" leaves that many pixels free at the top (the main screen under the head strip),
// "vkFillHeight" keeps the view that high at the top (the head strip itself).
class VkQtFill : public QObject {
    Q_OBJECT
  public:
    // Whether the view follows its parent's size.
    static bool fills(const QWidget* view);
    // Places the view over its parent now and from now on (no-op for other views).
    static void fit(QWidget* view);

  protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

  private:
    using QObject::QObject;
    static void place(QWidget* view);
};
