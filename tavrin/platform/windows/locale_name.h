#pragma once
// Windows names locales with tags such as "en-US", "zh-Hans-CN", "es-419" or
// "de-DE_phoneb" (a sort order after the underscore).

#include <string_view>

#include "tavrin/platform/device_facts.h"

namespace tavrin::platform::win {

// The language and, when the tag has one, the region (two letters or three
// digits); a script ("Hans"), an extended language, variants and the sort
// order are left out. Checked and cased as DeviceFacts::parseLocale does.
LocaleCodes parseLocaleName(std::string_view name);

}  // namespace tavrin::platform::win
