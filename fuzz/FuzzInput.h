// Reads a fuzzer's bytes as a stream of small values. Past the end every read gives zero, so a
// short input is still a complete (if dull) one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

class FuzzInput {
public:
    FuzzInput(const uint8_t* data, size_t size) : data_(data), size_(size) {}

    bool exhausted() const { return pos_ >= size_; }

    uint8_t byte() { return exhausted() ? 0 : data_[pos_++]; }

    uint32_t u32()
    {
        uint32_t value = 0;
        for (int i = 0; i < 4; ++i) value = (value << 8) | byte();
        return value;
    }

    // Up to max bytes, ending early at a zero byte (which C strings cannot hold anyway).
    std::string text(size_t max)
    {
        std::string s;
        while (s.size() < max && !exhausted()) {
            const char c = static_cast<char>(byte());
            if (c == '\0') break;
            s += c;
        }
        return s;
    }

private:
    const uint8_t* data_;
    size_t size_;
    size_t pos_ = 0;
};
