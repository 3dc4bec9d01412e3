#pragma once

#include <atomic>
#include <cstdint>

// A point in time: seconds since 1970-01-01 UTC and microseconds 0..999999.
struct SearchTime {
    unsigned int sec = 0;
    unsigned int usec = 0;

    bool operator==(const SearchTime& other) const
    {
        return sec == other.sec && usec == other.usec;
    }
    bool operator!=(const SearchTime& other) const { return !(*this == other); }
    // Seconds first, then microseconds; equal times are not earlier.
    bool operator<(const SearchTime& other) const
    {
        return sec < other.sec || (sec == other.sec && usec < other.usec);
    }
    bool operator<=(const SearchTime& other) const { return !(other < *this); }
};

// A SearchTime that one thread writes while another reads it. Both halves live in one
// 64-bit atomic so that a reader never pairs the seconds of one position with the
// microseconds of the next.
class AtomicSearchTime {
public:
    AtomicSearchTime() = default;
    explicit AtomicSearchTime(SearchTime time) : packed_(pack(time)) {}

    SearchTime load() const { return unpack(packed_.load(std::memory_order_relaxed)); }
    void store(SearchTime time) { packed_.store(pack(time), std::memory_order_relaxed); }

    AtomicSearchTime& operator=(SearchTime time)
    {
        store(time);
        return *this;
    }
    operator SearchTime() const { return load(); }

    AtomicSearchTime(const AtomicSearchTime&) = delete;
    AtomicSearchTime& operator=(const AtomicSearchTime&) = delete;

private:
    static std::uint64_t pack(SearchTime time)
    {
        return (static_cast<std::uint64_t>(time.sec) << 32) | time.usec;
    }
    static SearchTime unpack(std::uint64_t packed)
    {
        return SearchTime{static_cast<unsigned int>(packed >> 32),
                          static_cast<unsigned int>(packed & 0xffffffffu)};
    }

    std::atomic<std::uint64_t> packed_{0};
};
