#pragma once

#include <QIcon>
#include <QPixmap>
#include <QSize>
#include <string>

#include "platform/VkImage.h"
#include "ui/VkPanelView.h"

// Turns the pictures the screen logic names into pixmaps. Main thread only: file icons come
// from the desktop's icon theme through QFileIconProvider, which is not thread-safe.
class VkQtImages {
  public:
    // The image resource `name` ("security_good") from the resource folder's "images", drawn
    // at `size` (its natural size when empty); a null pixmap when there is no such file.
    static QPixmap resourcePixmap(const std::string& resourceFolder, const std::string& name,
                                  QSize size = {});
    // The icon of a file (by its path) or of a file type ("rtf", "public.folder").
    static QIcon fileIcon(const VkImage& image);
    // Any picture of the logic, drawn to fit `fallbackSize` where the picture gives no size.
    static QPixmap pixmap(const VkPanelImage& image, const std::string& resourceFolder,
                          QSize fallbackSize);
};
