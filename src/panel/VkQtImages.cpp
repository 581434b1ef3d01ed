#include "panel/VkQtImages.h"

#include <QFile>
#include <QFileIconProvider>
#include <QFileInfo>
#include <QMimeDatabase>
#include <QPainter>
#include <QSvgRenderer>

#include "panel/VkBaseImageUtil.h"
#include "panel/VkQtSortIndicator.h"

QPixmap VkQtImages::resourcePixmap(const std::string& resourceFolder, const std::string& name,
                                   QSize size) {
    QString base = QString::fromStdString(resourceFolder + "/images/" + name);
    if (QFile::exists(base + ".svg")) {
        QSvgRenderer renderer(base + ".svg");
        if (!renderer.isValid())
            return {};
        QSize natural = renderer.defaultSize();
        // Fitted into the space given, keeping the picture's own proportions.
        size = size.isEmpty() ? natural : natural.scaled(size, Qt::KeepAspectRatio);
        // Drawn for the screen's pixel ratio so the pictures stay sharp on dense screens.
        QPixmap pixmap(size * 2);
        pixmap.setDevicePixelRatio(2);
        pixmap.fill(Qt::transparent);
        QPainter painter(&pixmap);
        renderer.render(&painter, QRectF(QPointF(0, 0), QSizeF(size)));
        return pixmap;
    }
    if (QFile::exists(base + ".png")) {
        QPixmap pixmap(base + ".png");
        return size.isEmpty() ? pixmap
                              : pixmap.scaled(size, Qt::KeepAspectRatio, Qt::SmoothTransformation);
    }
    return {};
}

QIcon VkQtImages::fileIcon(const VkImage& image) {
    static QFileIconProvider provider;
    QIcon icon;
    if (!image.path.empty()) {
        icon = provider.icon(QFileInfo(QString::fromStdString(image.path)));
    } else if (image.type == "public.folder") {
        icon = provider.icon(QFileIconProvider::Folder);
    } else if (!image.type.empty()) {
        // The type's picture from the icon theme, by the type's name, then by its family.
        QMimeType mime = QMimeDatabase().mimeTypeForFile(
            QString::fromStdString("file." + image.type), QMimeDatabase::MatchExtension);
        icon = QIcon::fromTheme(mime.iconName(), QIcon::fromTheme(mime.genericIconName()));
    }
    // A file that is gone, or a type the desktop draws nothing for: the generic file icon,
    // never a blank.
    if (icon.isNull() || icon.pixmap(QSize(16, 16)).isNull())
        icon = provider.icon(QFileIconProvider::File);
    return icon;
}

QPixmap VkQtImages::pixmap(const VkPanelImage& image, const std::string& resourceFolder,
                           QSize fallbackSize) {
    switch (image.kind) {
        case VkPanelImage::Kind::none:
            return {};
        case VkPanelImage::Kind::resource:
            if (image.name == "NSAscendingSortIndicator" ||
                image.name == "NSDescendingSortIndicator")
                return VkQtSortIndicator::picture(image.name, fallbackSize);
            return resourcePixmap(resourceFolder, image.name, fallbackSize);
        case VkPanelImage::Kind::icon: {
            QSize size(static_cast<int>(image.icon.width), static_cast<int>(image.icon.height));
            if (size.isEmpty())
                size = fallbackSize;
            return fileIcon(image.icon).pixmap(size);
        }
        case VkPanelImage::Kind::button: {
            QSize size(static_cast<int>(image.size.width), static_cast<int>(image.size.height));
            if (size.isEmpty())
                size = fallbackSize;
            return VkBaseImageUtil::baseButtonImage(image.style, size,
                                                    QString::fromStdString(image.title));
        }
    }
    return {};
}
