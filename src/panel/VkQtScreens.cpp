#include "panel/VkQtScreens.h"

#include <QDesktopServices>
#include <QFileInfo>
#include <QProcess>
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
