#pragma once

#include <QPixmap>
#include <QSize>
#include <QString>

// The suite's painted button faces: the title is drawn into the picture, so a button that
// shows one has an empty title of its own.
class VkBaseImageUtil {
  public:
    // Style 1: a rounded blue face with its title centred in white; other styles a plain grey
    // face. An empty size gives a null pixmap.
    static QPixmap baseButtonImage(int style, QSize size, const QString& title);
};
