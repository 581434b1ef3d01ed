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

  private:
    std::shared_ptr<VkContext> context_;
};
