#pragma once

#include <memory>
#include <string>

#include "platform/VkContext.h"

// Makes sure the "Logs" folder exists inside the data folder.
class VkLogsOperCommon {
  public:
    explicit VkLogsOperCommon(std::shared_ptr<VkContext> context);
    static std::shared_ptr<VkLogsOperCommon> sharedOper();

    // data folder/"Logs", opened without following a link in its place: a plain file or a
    // link of that name is replaced by a folder (the link itself removed, never what it
    // names); the data folder is created without parents when missing. What is read and
    // written in it goes through this descriptor, so that a link swapped in for the folder
    // never leads a write (or a lock file, or a removal) elsewhere.
    VkResult<VkFd> creatLogsFilePath() const;
    std::string logsFolder() const;
    // The same folder for reading only: nothing is made, and a link there fails.
    VkResult<VkFd> openLogsFolder() const;

  private:
    std::shared_ptr<VkContext> context_;
};
