#pragma once
// Wall clock as seconds since 1970 (fractional): what session timeouts,
// timestamps and the ages of cached requests are measured with. Tests replace
// the source to move time without sleeping.
//
//     using tavrin::platform::Clock;
//     double started = Clock::now();
//     Clock::setFixed(1'700'000'000);  // tests: freeze time ...
//     Clock::advance(1801);            // ... and pass a 30-minute session timeout at once
//     Clock::reset();                  // the system clock again

#include <functional>

#include "tavrin/platform/api.h"

namespace tavrin::platform {

class TAVRIN_API Clock {
public:
    using Source = std::function<double()>;

    // Seconds since 1970 from the installed source (the system clock by default).
    static double now();
    // Installs a source; an empty function restores the system clock.
    static void setSource(Source source);
    // Convenience for tests: a fixed time that can be moved by hand. advance
    // on a running clock first freezes it at the current reading.
    static void setFixed(double secondsSince1970);
    static void advance(double seconds);
    static void reset() { setSource({}); }
};

}  // namespace tavrin::platform
