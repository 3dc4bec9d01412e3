#include "onvif/XsdValues.h"

#include <charconv>
#include <cstdio>
#include <ctime>
#include <limits>

#include "client/InputText.h"

namespace onvif {

using rsclient::trimmed;

namespace {

bool digitsAt(const std::string& s, std::size_t at, std::size_t count, int& value)
{
    if (at + count > s.size()) return false;
    value = 0;
    for (std::size_t i = at; i < at + count; ++i) {
        if (s[i] < '0' || s[i] > '9') return false;
        value = value * 10 + (s[i] - '0');
    }
    return true;
}

// The zone after the seconds: Z, +hh:mm, -hh:mm or nothing. Seconds east of UTC.
std::optional<int> zoneOffset(const std::string& zone)
{
    if (zone.empty() || zone == "Z") return 0;
    int hours = 0, minutes = 0;
    if (zone.size() != 6 || (zone[0] != '+' && zone[0] != '-') || zone[3] != ':' ||
        !digitsAt(zone, 1, 2, hours) || !digitsAt(zone, 4, 2, minutes) || hours > 14 ||
        minutes > 59) {
        return std::nullopt;
    }
    const int offset = hours * 3600 + minutes * 60;
    return zone[0] == '-' ? -offset : offset;
}

}  // namespace

std::optional<rsclient::TimePoint> readDateTime(const std::string& raw, std::string* why)
{
    const std::string text = trimmed(raw);
    std::tm tm{};
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    const bool shaped =
        text.size() >= 19 && digitsAt(text, 0, 4, year) && text[4] == '-' &&
        digitsAt(text, 5, 2, month) && text[7] == '-' && digitsAt(text, 8, 2, day) &&
        text[10] == 'T' && digitsAt(text, 11, 2, hour) && text[13] == ':' &&
        digitsAt(text, 14, 2, minute) && text[16] == ':' && digitsAt(text, 17, 2, second);
    if (!shaped || month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 ||
        second > 59) {
        *why = "not an xs:dateTime such as 2024-01-01T10:00:00Z";
        return std::nullopt;
    }
    std::size_t at = 19;
    uint32_t usec = 0;
    if (at < text.size() && text[at] == '.') {
        std::size_t digits = 0;
        uint32_t scale = 100000;
        for (++at; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at, ++digits) {
            usec += uint32_t(text[at] - '0') * scale;
            scale /= 10;
        }
        if (digits == 0) {
            *why = "xs:dateTime needs digits after the decimal point";
            return std::nullopt;
        }
    }
    const auto offset = zoneOffset(text.substr(at));
    if (!offset) {
        *why = "the zone of an xs:dateTime is Z, +hh:mm or -hh:mm";
        return std::nullopt;
    }
    tm.tm_year = year - 1900;
    tm.tm_mon = month - 1;
    tm.tm_mday = day;
    tm.tm_hour = hour;
    tm.tm_min = minute;
    tm.tm_sec = second;
    const int64_t local = timegm(&tm);
    if (tm.tm_mday != day) {  // timegm carried 31 April into May
        *why = "there is no such date";
        return std::nullopt;
    }
    const int64_t sec = local - *offset;
    if (sec < 0 || sec > int64_t(std::numeric_limits<uint32_t>::max())) {
        *why = "times must lie between 1970-01-01T00:00:00Z and 2106-02-07T06:28:15Z";
        return std::nullopt;
    }
    return rsclient::TimePoint{uint32_t(sec), usec};
}

std::string dateTimeText(rsclient::TimePoint t)
{
    const std::time_t sec = t.sec;
    std::tm tm{};
    gmtime_r(&sec, &tm);
    char text[40];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &tm);
    std::string out = text;
    if (t.usec != 0) {
        std::snprintf(text, sizeof text, ".%06u", t.usec);
        out += text;
        while (out.back() == '0') out.pop_back();
    }
    return out + "Z";
}

std::optional<std::chrono::milliseconds> readDuration(const std::string& raw, std::string* why)
{
    const std::string text = trimmed(raw);
    const auto refuse = [&](const std::string& reason) {
        *why = "not an xs:duration such as PT10S: " + reason;
        return std::nullopt;
    };
    if (text.size() < 3 || text[0] != 'P') return refuse("it starts with P");
    double total = 0;
    bool inTime = false;
    bool any = false;
    std::size_t at = 1;
    while (at < text.size()) {
        if (text[at] == 'T') {
            if (inTime) return refuse("one T only");
            inTime = true;
            ++at;
            continue;
        }
        double value = 0;
        const auto [end, error] = std::from_chars(text.data() + at, text.data() + text.size(),
                                                  value, std::chars_format::fixed);
        if (error != std::errc() || end == text.data() + text.size() || value < 0 ||
            text[at] == '-' || text[at] == '+') {
            return refuse("a number comes before each unit");
        }
        at = std::size_t(end - text.data());
        const char unit = text[at++];
        double seconds = 0;
        if (!inTime && unit == 'D')
            seconds = 86400;
        else if (!inTime && unit == 'W')
            seconds = 7 * 86400;
        else if (inTime && unit == 'H')
            seconds = 3600;
        else if (inTime && unit == 'M')
            seconds = 60;
        else if (inTime && unit == 'S')
            seconds = 1;
        else
            return refuse(!inTime && (unit == 'Y' || unit == 'M')
                              ? "years and months have no fixed length"
                              : "unknown unit");
        total += value * seconds;
        any = true;
    }
    if (!any) return refuse("it names no unit");
    if (total > 10.0 * 365 * 86400) return refuse("longer than ten years");
    return std::chrono::milliseconds(int64_t(total * 1000));
}

std::optional<bool> readBoolean(const std::string& raw)
{
    const std::string text = trimmed(raw);
    if (text == "true" || text == "1") return true;
    if (text == "false" || text == "0") return false;
    return std::nullopt;
}

std::optional<int32_t> readInt(const std::string& raw)
{
    const std::string text = trimmed(raw);
    const char* begin = text.data() + (!text.empty() && text[0] == '+' ? 1 : 0);
    int32_t value = 0;
    const auto [end, error] = std::from_chars(begin, text.data() + text.size(), value);
    if (text.empty() || error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

}  // namespace onvif
