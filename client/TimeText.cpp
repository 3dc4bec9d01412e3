#include "client/TimeText.h"

#include <charconv>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <limits>

#include "client/InputText.h"

namespace rsclient {

namespace {

bool allDigits(const std::string& s)
{
    if (s.empty()) return false;
    for (char c : s) {
        if (c < '0' || c > '9') return false;
    }
    return true;
}

std::optional<uint32_t> toUint32(const std::string& digits)
{
    uint32_t value = 0;
    const char* end = digits.data() + digits.size();
    auto [ptr, ec] = std::from_chars(digits.data(), end, value);
    if (ec != std::errc() || ptr != end) return std::nullopt;
    return value;
}

// Fraction digits after the point: decimal up to microsecond precision, raw beyond it.
std::optional<uint32_t> parseFraction(const std::string& digits, std::string* why)
{
    if (!allDigits(digits)) {
        *why = "expected digits after the decimal point";
        return std::nullopt;
    }
    if (digits.size() <= 6) return toUint32(digits + std::string(6 - digits.size(), '0'));
    auto raw = toUint32(digits);
    if (!raw) *why = "microseconds field does not fit 32 bits";
    return raw;
}

std::optional<TimePoint> parseSeconds(const std::string& text, std::string* why)
{
    const auto dot = text.find('.');
    const std::string whole = text.substr(0, dot);
    if (!allDigits(whole)) {
        *why =
            "expected SECONDS[.MICROSECONDS] or an ISO 8601 UTC time such as "
            "2026-11-23T10:00:00Z";
        return std::nullopt;
    }
    auto sec = toUint32(whole);
    if (!sec) {
        *why = "seconds beyond 4294967295 (2106-02-07T06:28:15Z)";
        return std::nullopt;
    }
    TimePoint t{*sec, 0};
    if (dot != std::string::npos) {
        auto usec = parseFraction(text.substr(dot + 1), why);
        if (!usec) return std::nullopt;
        t.usec = *usec;
    }
    return t;
}

std::optional<TimePoint> parseIso(const std::string& text, std::string* why)
{
    std::tm tm{};
    const char* rest = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &tm);
    if (rest == nullptr) {
        *why = "not an ISO 8601 time of the form 2026-11-23T10:00:00[.250]Z";
        return std::nullopt;
    }
    TimePoint t;
    std::string tail(rest);
    if (!tail.empty() && tail[0] == '.') {
        const auto zone = tail.find_first_not_of("0123456789", 1);
        const std::string digits = tail.substr(1, zone == std::string::npos ? zone : zone - 1);
        if (digits.size() > 6) {
            *why = "more than six digits after the seconds";
            return std::nullopt;
        }
        auto usec = parseFraction(digits, why);
        if (!usec) return std::nullopt;
        t.usec = *usec;
        tail = zone == std::string::npos ? "" : tail.substr(zone);
    }
    if (tail != "Z" && tail != "z" && tail != "+00:00") {
        *why = "ISO 8601 times must be UTC and end in Z (for example 2026-11-23T10:00:00Z)";
        return std::nullopt;
    }
    const int64_t sec = timegm(&tm);
    if (sec < 0 || sec > int64_t(std::numeric_limits<uint32_t>::max())) {
        *why = "outside 1970-01-01T00:00:00Z to 2106-02-07T06:28:15Z";
        return std::nullopt;
    }
    t.sec = uint32_t(sec);
    return t;
}

}  // namespace

std::optional<TimePoint> parseTime(const std::string& text, std::string* why)
{
    std::string ignored;
    if (why == nullptr) why = &ignored;
    if (std::string tooLong = lengthProblem(text); !tooLong.empty()) {
        *why = tooLong;
        return std::nullopt;
    }
    if (text.find('T') != std::string::npos || text.find('t') != std::string::npos ||
        text.find('-') != std::string::npos) {
        return parseIso(text, why);
    }
    return parseSeconds(text, why);
}

std::string isoText(TimePoint t)
{
    const std::time_t sec = t.sec;
    std::tm tm{};
    gmtime_r(&sec, &tm);
    char date[32];
    std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &tm);
    char text[48];
    std::snprintf(text, sizeof text, "%s.%06" PRIu32 "Z", date, t.usec);
    return text;
}

std::string secondsText(TimePoint t)
{
    char text[32];
    std::snprintf(text, sizeof text, "%" PRIu32 ".%06" PRIu32, t.sec, t.usec);
    return text;
}

bool earlier(TimePoint a, TimePoint b)
{
    return a.sec < b.sec || (a.sec == b.sec && a.usec < b.usec);
}

double toSeconds(TimePoint t) { return double(t.sec) + double(t.usec) / 1e6; }

Micros sinceEpoch(TimePoint t) { return std::chrono::seconds(t.sec) + Micros(t.usec); }

TimePoint timePointAt(Micros sinceEpoch)
{
    const auto sec = std::chrono::duration_cast<std::chrono::seconds>(sinceEpoch);
    return TimePoint{uint32_t(sec.count()), uint32_t((sinceEpoch - sec).count())};
}

std::optional<Micros> parseDuration(const std::string& text, std::string* why)
{
    std::string ignored;
    if (why == nullptr) why = &ignored;
    if (std::string tooLong = lengthProblem(text); !tooLong.empty()) {
        *why = tooLong;
        return std::nullopt;
    }
    const auto unitAt = text.find_first_not_of("0123456789.");
    const std::string number = text.substr(0, unitAt);
    const std::string unit = unitAt == std::string::npos ? "" : text.substr(unitAt);
    double scale = 0;
    for (const auto& [name, micros] : {std::pair<const char*, double>{"", 1e6},
                                       {"s", 1e6},
                                       {"ms", 1e3},
                                       {"m", 60e6},
                                       {"min", 60e6},
                                       {"h", 3600e6},
                                       {"d", 86400e6}}) {
        if (unit == name) scale = micros;
    }
    const auto value =
        plainDecimal(number, false) && scale > 0 ? decimalValue(number) : std::nullopt;
    if (!value) {
        *why = excerpt(text) + " is not a duration such as 90s, 500ms, 5m, 2h or 1d";
        return std::nullopt;
    }
    const double usec = std::round(*value * scale);
    if (usec < 1 || usec > 3650 * 86400e6) {
        *why = excerpt(text) + " is not a duration above 0 and up to ten years";
        return std::nullopt;
    }
    return Micros(int64_t(usec));
}

std::string durationText(Micros d)
{
    char text[48];
    const int64_t s = std::chrono::duration_cast<std::chrono::seconds>(d).count();
    if (d < std::chrono::seconds(60)) {
        std::snprintf(text, sizeof text, "%.1f s", double(d.count()) / 1e6);
    } else if (s < 3600) {
        std::snprintf(text, sizeof text, "%lld min %02lld s", (long long)(s / 60),
                      (long long)(s % 60));
    } else if (s < 86400) {
        std::snprintf(text, sizeof text, "%lld h %02lld min", (long long)(s / 3600),
                      (long long)(s % 3600 / 60));
    } else {
        std::snprintf(text, sizeof text, "%lld d %02lld h", (long long)(s / 86400),
                      (long long)(s % 86400 / 3600));
    }
    std::string out = text;
    for (const char* zero : {" 00 s", " 00 min", " 00 h"}) {
        const auto at = out.find(zero);
        if (at != std::string::npos && at + std::string(zero).size() == out.size()) out.resize(at);
    }
    return out;
}

}  // namespace rsclient
