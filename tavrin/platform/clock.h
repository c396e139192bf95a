#pragma once
// Wall clock as seconds since 1970 (fractional). Tests replace the source to
// move time without sleeping.

#include <functional>

namespace tavrin::platform {

class Clock {
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
