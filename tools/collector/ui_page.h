#pragma once
// The debug view: one self-contained HTML page (styles and script inline).

namespace tavrin::collector {

extern const char* const kDebugViewPage;

}  // namespace tavrin::collector
