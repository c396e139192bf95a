#include "tavrin/sdk/tavrin_service.h"

#include <string>

#include "tavrin/sdk/internal/logger_utility.h"

namespace tavrin {

void TavrinService::setLogLevel(LogLevel level) {
    auto& logger = LoggerUtility::shared();
    logger.setLogLevel(level);
    logger.info([&] { return std::string("Log level set to: ") + description(level); });
}

}  // namespace tavrin
