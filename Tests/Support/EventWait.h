// Waiting in tests: always for an event, never for a time, and never without limit.
#pragma once

#include <chrono>
#include <functional>

namespace support {

/// How long a test waits for something that must happen. Only a failing test waits that long, so it
/// is long enough for a loaded machine under a sanitizer.
inline constexpr std::chrono::seconds kPatience{30};

/// Waits until `condition` holds; false if it still does not when the timeout expires. The limit is
/// in real time, even while a TestClock stands still.
bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds limit = kPatience);

/// Waits until `descriptor` can be read, or its peer has gone; false when the time is up.
bool waitUntilReadable(int descriptor, std::chrono::milliseconds limit = kPatience);

}  // namespace support
