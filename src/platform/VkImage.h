#pragma once

#include <string>

// An image described, not drawn: the workspace icon of a file or of a file type at a size
// in points. The core never makes a GUI object (scans run on worker threads); the panel
// resolves the description into a picture on the main thread.
struct VkImage {
    std::string path;  // the file whose icon this is; empty for a type icon
    std::string type;  // a file type (e.g. "public.folder") when the icon is not a file's
    double width = 0;
    double height = 0;

    // The workspace icon of the file at path.
    static VkImage iconForFile(std::string path) {
        VkImage image;
        image.path = std::move(path);
        return image;
    }
    // The workspace icon of a file type.
    static VkImage iconForFileType(std::string type) {
        VkImage image;
        image.type = std::move(type);
        return image;
    }
    // The same icon drawn at another size.
    VkImage resized(double newWidth, double newHeight) const {
        VkImage image = *this;
        image.width = newWidth;
        image.height = newHeight;
        return image;
    }

    bool operator==(const VkImage&) const = default;
};
