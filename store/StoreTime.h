// A point on the recording's timeline, as the bus carries it: seconds and microseconds,
// compared lexicographically. 0.0 stands for "no such time" in answers.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "kavro/contract.h"

namespace store {

struct StoreTime {
    uint32_t sec = 0;
    uint32_t usec = 0;

    static constexpr uint32_t kMaxUsec = kavro::contract::kMaxUsec;

    // Stored times have microseconds up to 999999, so a single number orders them exactly.
    // Asked-for times may carry more; clamping keeps every comparison with stored times
    // exact, because no stored time lies between (s, 999999) and (s + 1, 0).
    int64_t key() const;
    static StoreTime fromKey(int64_t key);

    // "SECONDS[.MICROSECONDS]" or ISO 8601 UTC, read as recsearch reads them, except that a
    // fraction of more than six digits is refused. On failure, *why (if given) says why.
    static std::optional<StoreTime> parse(const std::string& text, std::string* why);
    std::string toString() const;  // "%u.%06u"

    bool isNone() const { return sec == 0 && usec == 0; }
    friend bool operator==(StoreTime a, StoreTime b) { return a.sec == b.sec && a.usec == b.usec; }
    friend bool operator!=(StoreTime a, StoreTime b) { return !(a == b); }
    friend bool operator<(StoreTime a, StoreTime b)
    {
        return a.sec < b.sec || (a.sec == b.sec && a.usec < b.usec);
    }
};

}  // namespace store
