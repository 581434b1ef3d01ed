#pragma once

// Told by a screen shown over the trojan main screen when it has closed.
class VkTrojanCommonDelegate {
  public:
    virtual ~VkTrojanCommonDelegate() = default;
    // The screen has been taken away; the main screen shows its own controls again.
    virtual void disApperaView() = 0;
};
