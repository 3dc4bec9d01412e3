// For the store's tests: scratch directories, and short ways to name times and properties.
#pragma once

#include <ostream>
#include <string>

#include "store/Recording.h"
#include "store/RecordingWriter.h"
#include "store/StoreTime.h"
#include "support/TempDir.h"

namespace storetest {

using rstest::TempDir;

inline store::StoreTime at(uint32_t sec, uint32_t usec = 0) { return store::StoreTime{sec, usec}; }

inline store::EventProperty recordingSwitch(bool on) { return {0, on ? 1u : 0u, ""}; }
inline store::EventProperty trackSwitch(const std::string& track, bool on)
{
    return {1, on ? 1u : 0u, track};
}

}  // namespace storetest

namespace store {

// Readable failure messages for the store's value types.
inline void PrintTo(StoreTime time, std::ostream* out) { *out << time.toString(); }

}  // namespace store
