#pragma once

// What a host passes to the panel when it creates it. Plain C, so that a host needs nothing
// of the panel but this header and Qt.
class QWidget;

extern "C" {

struct VkPanelHostOptions {
    // The data folder and the root of the inspected system; null or "" for the defaults.
    const char* dataFolder;
    const char* systemRoot;
    // Receives, on the main thread, one line per report of the panel to the host (operation
    // manager, usage counters, experience service, scripts); may be null.
    void (*hostLog)(const char* line, void* user);
    void* user;
    // Days of scan history to keep ("LogsKeepDay", which the host owns); 0 leaves the stored
    // value alone.
    int logsKeepDays;
    // Receives, on the main thread, each notification the panel posts for its host:
    // "TrojanScanNotify" (detail "1" at a scan's start, "0" at its end),
    // "ReloadIntrodutNotify" (detail "DetectedFileCount=N" when the count came with it, else
    // "") and "OnlineDownScanChangeNotify" (detail ""); may be null. Hears `user` too.
    void (*hostNotify)(const char* name, const char* detail, void* user);
};

// The name the host resolves in the loaded library.
#define VK_SECURITY_CREATE_PANEL "vkSecurityCreatePanel"
typedef QWidget* (*VkSecurityCreatePanelFn)(QWidget* parent, const VkPanelHostOptions* options);
}
