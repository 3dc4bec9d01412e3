// Scratch files for the store's tests: a directory removed afterwards, and short ways to
// write a recording and to read one back.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "store/Recording.h"
#include "store/RecordingWriter.h"
#include "store/StoreTime.h"

namespace storetest {

class ScratchDir {
public:
    ScratchDir()
    {
        const char* base = std::getenv("TMPDIR");
        std::string dir = std::string(base && *base ? base : "/tmp") + "/rs-store-XXXXXX";
        if (!::mkdtemp(dir.data())) throw std::runtime_error("mkdtemp failed");
        path_ = dir;
    }
    ~ScratchDir()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    std::string write(const std::string& name, const std::string& text) const
    {
        std::ofstream(file(name), std::ios::binary) << text;
        return file(name);
    }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

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
