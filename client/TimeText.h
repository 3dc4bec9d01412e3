// Times and durations as a person types and reads them: seconds since 1970 with microseconds,
// or ISO 8601 UTC; "90s", "5m", "2h".
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace rsclient {

struct TimePoint {
    uint32_t sec = 0;
    uint32_t usec = 0;
};

// "SECONDS[.FRACTION]" or "YYYY-MM-DDTHH:MM:SS[.FRACTION]Z". A fraction of one to six digits is
// a decimal fraction of a second ("10.25" is 10 s 250000 us). In the SECONDS form a longer one
// is taken as a raw microseconds field and passed on unchecked, so that the service's own range
// check can be reached ("10.1000000" is 10 s 1000000 us). On failure, *why says what is wrong.
std::optional<TimePoint> parseTime(const std::string& text, std::string* why);

std::string isoText(TimePoint t);      // 2026-11-23T10:00:00.250000Z
std::string secondsText(TimePoint t);  // 1795428000.250000

bool earlier(TimePoint a, TimePoint b);
double toSeconds(TimePoint t);

using Micros = std::chrono::microseconds;

Micros sinceEpoch(TimePoint t);
TimePoint timePointAt(Micros sinceEpoch);

// "90", "90s", "500ms", "1.5m", "2h", "1d"; above zero and up to ten years. On failure, *why
// says what is wrong.
std::optional<Micros> parseDuration(const std::string& text, std::string* why);
std::string durationText(Micros d);  // 2 h 05 min, 12.4 s

}  // namespace rsclient
