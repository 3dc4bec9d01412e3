#include "store/StoreTime.h"

#include <algorithm>
#include <cstdio>

namespace store {

int64_t StoreTime::key() const
{
    return int64_t(sec) * 1000000 + std::min(usec, kMaxUsec);
}

StoreTime StoreTime::fromKey(int64_t key)
{
    return StoreTime{uint32_t(key / 1000000), uint32_t(key % 1000000)};
}

namespace {

std::optional<uint64_t> parseDigits(const std::string& text, size_t maxDigits)
{
    if (text.empty() || text.size() > maxDigits) return std::nullopt;
    uint64_t value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return std::nullopt;
        value = value * 10 + uint64_t(c - '0');
    }
    return value;
}

}  // namespace

std::optional<StoreTime> StoreTime::parse(const std::string& text)
{
    const size_t dot = text.find('.');
    const auto sec = parseDigits(text.substr(0, dot), 10);
    if (!sec || *sec > UINT32_MAX) return std::nullopt;
    uint64_t usec = 0;
    if (dot != std::string::npos) {
        const std::string fraction = text.substr(dot + 1);
        const auto digits = parseDigits(fraction, 6);
        if (!digits) return std::nullopt;
        usec = *digits;
        for (size_t i = fraction.size(); i < 6; ++i) usec *= 10;
    }
    return StoreTime{uint32_t(*sec), uint32_t(usec)};
}

std::string StoreTime::toString() const
{
    char text[32];
    std::snprintf(text, sizeof text, "%u.%06u", sec, usec);
    return text;
}

}  // namespace store
