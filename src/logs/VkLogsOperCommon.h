#pragma once

#include <memory>
#include <string>

#include "platform/VkContext.h"

// Makes sure the "Logs" folder exists inside the data folder.
class VkLogsOperCommon {
  public:
    explicit VkLogsOperCommon(std::shared_ptr<VkContext> context);
    static std::shared_ptr<VkLogsOperCommon> sharedOper();

    // data folder/"Logs": a plain file of that name is replaced by a folder; the data
    // folder is created without parents when missing. Failures are silent.
    void creatLogsFilePath();
    std::string logsFolder() const;
    // The "Logs" folder itself, never a link in its place: with `make`, made as
    // creatLogsFilePath() does, a link there removed like a file; without, a link there fails.
    // What is read and written in it goes through this descriptor, so that a link swapped in
    // for the folder never leads a write (or a lock file, or a removal) elsewhere.
    VkResult<VkFd> openLogsFolder(bool make) const;

  private:
    std::shared_ptr<VkContext> context_;
};
