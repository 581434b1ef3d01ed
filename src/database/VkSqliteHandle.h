#pragma once

// The SQLite handles live on the ground floor, so that the engine's hash cache can use them.
#include "platform/VkSqliteHandle.h"
