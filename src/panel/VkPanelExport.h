#pragma once

// Marks the one symbol the panel's shared library exports to its host.
#define VK_EXPORT __attribute__((visibility("default")))
