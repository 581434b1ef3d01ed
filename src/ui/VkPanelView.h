#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/VkImage.h"
#include "ui/VkUserPrompts.h"

struct VkPoint {
    double x = 0;
    double y = 0;
    bool operator==(const VkPoint&) const = default;
};

struct VkSize {
    double width = 0;
    double height = 0;
    bool operator==(const VkSize&) const = default;
};

struct VkRect {
    VkPoint origin;
    VkSize size;
    bool operator==(const VkRect&) const = default;
};

// Device colour, each component 0..1.
struct VkColor {
    double red = 0;
    double green = 0;
    double blue = 0;
    double alpha = 1;
    bool operator==(const VkColor&) const = default;

    static VkColor black() { return VkColor{}; }
    // A colour given in 0..255 steps, the way the panel's designs give them.
    static VkColor rgb255(int r, int g, int b) { return VkColor{r / 255.0, g / 255.0, b / 255.0}; }
};

// A picture a control shows: a named image of the panel's resources (or a system one
// such as "NSAscendingSortIndicator"), a workspace icon, or a painted button image with
// its title drawn in.
struct VkPanelImage {
    enum class Kind { none, resource, icon, button };

    Kind kind = Kind::none;
    std::string name;   // resource
    VkImage icon;       // icon
    int32_t style = 0;  // button
    VkSize size;        // button
    std::string title;  // button

    static VkPanelImage none() { return VkPanelImage{}; }
    static VkPanelImage resource(std::string name) {
        VkPanelImage image;
        image.kind = Kind::resource;
        image.name = std::move(name);
        return image;
    }
    static VkPanelImage fromIcon(VkImage icon) {
        VkPanelImage image;
        image.kind = Kind::icon;
        image.icon = std::move(icon);
        return image;
    }
    static VkPanelImage button(int32_t style, VkSize size, std::string title) {
        VkPanelImage image;
        image.kind = Kind::button;
        image.style = style;
        image.size = size;
        image.title = std::move(title);
        return image;
    }
    bool operator==(const VkPanelImage&) const = default;
};

// Text with attributes, over the whole text unless a highlight range is given.
struct VkStyledText {
    std::string text;
    // Font: the system font at this size, or (size 0) the font of the control `fontOf`.
    double fontSize = 0;
    std::string fontOf;
    VkColor color;
    // A range of the text (byte offsets into `text`) drawn in another colour.
    size_t highlightStart = 0;
    size_t highlightLength = 0;
    VkColor highlightColor;
    bool operator==(const VkStyledText&) const = default;
};

// What a screen's logic asks of its window. Controls, columns and views are addressed by
// their names in the screen's interface file ("cancelButton", "fileNameColumn", "safeView");
// the window decides nothing. Main thread only.
class VkPanelView : public VkUserPrompts {
  public:

    virtual void setHidden(const std::string& control, bool hidden) = 0;
    virtual bool isHidden(const std::string& control) const = 0;
    virtual void setEnabled(const std::string& control, bool enabled) = 0;
    // A label's text, a button's title, a field's value.
    virtual void setText(const std::string& control, const std::string& text) = 0;
    virtual std::string text(const std::string& control) const = 0;
    virtual void setStyledText(const std::string& control, const VkStyledText& text) = 0;
    // The width the text takes when drawn.
    virtual double drawnWidth(const VkStyledText& text) const = 0;
    // Kind none clears the control's image.
    virtual void setImage(const std::string& control, const VkPanelImage& image) = 0;
    virtual void setProgress(const std::string& control, double value) = 0;
    // A check box's or a toggle's state (1 on, 0 off).
    virtual int32_t state(const std::string& control) const = 0;
    virtual void setState(const std::string& control, int32_t state) = 0;

    // Geometry in the coordinates of the control's parent, origin at the bottom left.
    virtual VkRect frame(const std::string& control) const = 0;
    virtual void setFrame(const std::string& control, const VkRect& frame) = 0;
    virtual void setOrigin(const std::string& control, VkPoint origin) = 0;

    // View hierarchy: "view" names the screen's own top view.
    virtual void addSubview(const std::string& parent, const std::string& child) = 0;
    virtual void removeFromSuperview(const std::string& child) = 0;
    virtual bool isSubview(const std::string& parent, const std::string& child) const = 0;
    // Opens or closes a sheet (a dialog over the screen's window).
    virtual void beginSheet(const std::string& sheet) = 0;
    virtual void endSheet(const std::string& sheet) = 0;

    // Lists: asks the named outline view for its rows again.
    virtual void reloadData(const std::string& outline) = 0;
    // Shows the named indicator on a column header; nothing removes it.
    virtual void setSortIndicator(const std::string& column,
                                  const std::optional<std::string>& indicator) = 0;
    virtual std::optional<int64_t> clickedRow(const std::string& outline) const = 0;
    virtual std::optional<int64_t> selectedRow(const std::string& outline) const = 0;

    // Opens a file viewer on the file's parent folder with the file selected.
    virtual void revealInFileViewer(const std::string& path) = 0;
};
