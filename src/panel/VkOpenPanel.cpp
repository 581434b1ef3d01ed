#include "panel/VkOpenPanel.h"

#include <QFileInfo>
#include <QGridLayout>

VkOpenPanel::VkOpenPanel(QWidget* parent, const QString& prompt, const QString& missingPathText)
    : QFileDialog(parent), missingPathLabel_(new QLabel(missingPathText)) {
    // Qt's own dialog: the platform's picks one kind only, and it has no place for the line.
    setOptions(QFileDialog::DontUseNativeDialog | QFileDialog::ReadOnly);
    setFileMode(QFileDialog::AnyFile);
    setLabelText(QFileDialog::Accept, prompt);
    missingPathLabel_->setObjectName("missingPathText");
    missingPathLabel_->setStyleSheet("QLabel { color: rgb(200,40,40); }");
    missingPathLabel_->hide();
    if (auto* grid = qobject_cast<QGridLayout*>(layout()))
        grid->addWidget(missingPathLabel_, grid->rowCount(), 0, 1, grid->columnCount());
    else
        missingPathLabel_->setParent(this);
}

void VkOpenPanel::accept() {
    // With nothing typed or selected the dialog answers the folder it shows.
    QStringList selected = selectedFiles();
    QString path = selected.isEmpty() ? directory().absolutePath() : selected.first();
    QFileInfo info(path);
    if (path.isEmpty() || (!info.exists() && !info.isSymLink())) {
        missingPathLabel_->show();
        return;
    }
    missingPathLabel_->hide();
    chosenPath_ = info.absoluteFilePath();
    QDialog::accept();
}
