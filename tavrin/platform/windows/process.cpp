// What Windows has no counterpart of: fork, and a store log to fold.

#include "tavrin/platform/internal/system.h"
#include "tavrin/platform/system_log.h"

namespace tavrin::platform::os {

// A Windows process never forks: there is nothing to hand over.
bool registerForkHandlers(void (*)(), void (*)(), void (*)()) { return true; }

std::shared_ptr<LogSink> freshDefaultSink(const LogSink&) { return nullptr; }

// Values are written to their files in place; nothing waits to be folded in.
void settleStore(KeyValueStore&) {}

}  // namespace tavrin::platform::os
