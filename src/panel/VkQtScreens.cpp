#include "panel/VkQtScreens.h"

#include <QDesktopServices>
#include <QFileInfo>
#include <QMessageBox>
#include <QProcess>
#include <QPushButton>
#include <QUrl>

void VkQtScreens::add(const std::string& name, QWidget* screen) {
    screens_.insert(QString::fromStdString(name), screen);
}

QWidget* VkQtScreens::shelf() {
    if (!shelf_) {
        ownShelf_ = std::make_unique<QWidget>();
        shelf_ = ownShelf_.get();
    }
    return shelf_;
}

QWidget* VkQtScreens::find(const std::string& name) const {
    auto it = screens_.find(QString::fromStdString(name));
    return it == screens_.end() ? nullptr : it->data();
}

void VkQtScreens::revealInFileViewer(const std::string& path) const {
    if (revealer_) {
        revealer_(path);
        return;
    }
    QFileInfo file(QString::fromStdString(path));
#ifdef __APPLE__
    QProcess::startDetached("open", {"-R", file.absoluteFilePath()});
#else
    // The desktop's file viewer opened on the folder; selecting the file itself needs the
    // desktop's file-manager service, which not every desktop has.
    QDesktopServices::openUrl(QUrl::fromLocalFile(file.absolutePath()));
#endif
}

bool VkQtScreens::confirm(QWidget* parent, const QString& message, const QString& confirmTitle,
                          const QString& cancelTitle) const {
    if (confirmer_)
        return confirmer_(parent, message, confirmTitle, cancelTitle);
    QMessageBox box(QMessageBox::Warning, QString(), message, QMessageBox::NoButton,
                    parent ? parent->window() : nullptr);
    QPushButton* yes = box.addButton(confirmTitle, QMessageBox::DestructiveRole);
    QPushButton* no = box.addButton(cancelTitle, QMessageBox::RejectRole);
    // Going on must be a deliberate choice: Return and Escape both keep things as they are.
    box.setDefaultButton(no);
    box.setEscapeButton(no);
    box.exec();
    return box.clickedButton() == yes;
}

void VkQtScreens::alert(QWidget* parent, const QString& message, const QString& closeTitle) const {
    if (alerter_) {
        alerter_(parent, message, closeTitle);
        return;
    }
    auto* box = new QMessageBox(QMessageBox::Warning, QString(), message, QMessageBox::NoButton,
                                parent ? parent->window() : nullptr);
    box->addButton(closeTitle, QMessageBox::AcceptRole);
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->open();
}
