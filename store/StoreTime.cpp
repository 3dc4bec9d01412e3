#include "store/StoreTime.h"

#include <algorithm>
#include <cstdio>

#include "client/TimeText.h"

namespace store {

int64_t StoreTime::key() const { return int64_t(sec) * 1000000 + std::min(usec, kMaxUsec); }

StoreTime StoreTime::fromKey(int64_t key)
{
    return StoreTime{uint32_t(key / 1000000), uint32_t(key % 1000000)};
}

std::optional<StoreTime> StoreTime::parse(const std::string& text, std::string* why)
{
    std::string ignored;
    if (why == nullptr) why = &ignored;
    const auto time = rsclient::parseTime(text, why);
    if (!time) return std::nullopt;
    // recsearch hands a longer fraction on as raw microseconds for the service to judge; a
    // stored time has to be exact.
    const size_t dot = text.find('.');
    if (dot != std::string::npos) {
        const size_t end = std::min(text.find_first_not_of("0123456789", dot + 1), text.size());
        if (end - dot - 1 > 6) {
            *why = "more than six digits after the point (microseconds are 0 to 999999)";
            return std::nullopt;
        }
    }
    return StoreTime{time->sec, time->usec};
}

std::string StoreTime::toString() const
{
    char text[32];
    std::snprintf(text, sizeof text, "%u.%06u", sec, usec);
    return text;
}

}  // namespace store
