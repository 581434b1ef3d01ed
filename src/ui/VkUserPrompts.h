#pragma once

#include <string>

// The two questions a window can put to the user, for the screens and the main panel alike.
class VkUserPrompts {
  public:
    virtual ~VkUserPrompts() = default;
    // Asks the user before what cannot be undone; true to go on. A window that cannot ask
    // (a recording one) goes on.
    virtual bool confirm(const std::string& message, const std::string& confirmTitle,
                         const std::string& cancelTitle) {
        (void)message, (void)confirmTitle, (void)cancelTitle;
        return true;
    }
    // Tells the user that something failed, without waiting for an answer.
    virtual void showAlert(const std::string& message, const std::string& closeTitle) {
        (void)message, (void)closeTitle;
    }
};
