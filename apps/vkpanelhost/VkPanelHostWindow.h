#pragma once

#include <QMainWindow>
#include <QPointer>

class QPlainTextEdit;

// The host's window: the panel above, the log of what the panel reported below, and menus
// for the host's entry points and notifications.
class VkPanelHostWindow : public QMainWindow {
    Q_OBJECT
  public:
    VkPanelHostWindow();

    // Puts the panel above the log; the window owns it from then on.
    void setPanel(QWidget* panel);

    // Adds one line to the visible log.
    void appendLog(const QString& line);

  private:
    void call(const char* entryPoint);
    void post(const QString& notification);

    QPointer<QWidget> panel_;
    class QSplitter* split_;
    QPlainTextEdit* log_;
};
