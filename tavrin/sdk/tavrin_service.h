#pragma once
// The entry of the SDK for the host application.

#include "tavrin/sdk/log_level.h"

namespace tavrin {

class TavrinService {
public:
    TavrinService() = delete;

    // Sets the threshold of the SDK's logger, then confirms the new level at
    // info (so the confirmation shows only at debug and info).
    static void setLogLevel(LogLevel level);
};

}  // namespace tavrin
