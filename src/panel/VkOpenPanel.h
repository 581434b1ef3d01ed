#pragma once

#include <QFileDialog>
#include <QLabel>
#include <QString>

// The drop view's open panel: picks one file or one folder. Qt's dialog takes a folder only
// in folder mode and otherwise walks into it; here the accept button takes the selected (or,
// with nothing selected, the shown) folder, while a double click still opens it. A typed
// path that is not there is said below the list, and the panel stays open.
class VkOpenPanel : public QFileDialog {
    Q_OBJECT
  public:
    VkOpenPanel(QWidget* parent, const QString& prompt, const QString& missingPathText);

    // The absolute path chosen, once the panel was accepted.
    const QString& chosenPath() const { return chosenPath_; }
    // The line that says a typed path is not there (hidden until then).
    QLabel* missingPathLabel() const { return missingPathLabel_; }

  public slots:
    void accept() override;

  private:
    QString chosenPath_;
    QLabel* missingPathLabel_;
};
