// The index's compact byte forms (facts, blocks of texts): numbers as unsigned LEB128, a text as
// its length plus one (0: absent) and then its bytes. Most values take one byte. Reading checks
// every length against the bytes left and throws std::runtime_error for what does not fit.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

namespace rsindex {

inline void putWord(std::string& out, uint64_t word)
{
    do {
        const auto low = uint8_t(word & 0x7f);
        word >>= 7;
        out += char(word != 0 ? low | 0x80 : low);
    } while (word != 0);
}

inline void putText(std::string& out, const std::optional<std::string>& text)
{
    if (!text) {
        putWord(out, 0);
        return;
    }
    putWord(out, uint64_t(text->size()) + 1);
    out += *text;
}

class Reader {
public:
    explicit Reader(const std::string& bytes) : bytes_(bytes) {}
    uint64_t word()
    {
        uint64_t word = 0;
        for (int shift = 0; shift < 64; shift += 7) {
            if (at_ >= bytes_.size()) throw std::runtime_error("truncated bytes");
            const auto byte = uint8_t(bytes_[at_++]);
            word |= uint64_t(byte & 0x7f) << shift;
            if ((byte & 0x80) == 0) return word;
        }
        throw std::runtime_error("corrupt bytes");
    }
    // A count of things that each take at least a byte: never more than the bytes left.
    uint32_t count()
    {
        const uint64_t n = word();
        if (n > bytes_.size() - at_) throw std::runtime_error("corrupt bytes");
        return uint32_t(n);
    }
    std::optional<std::string> text()
    {
        uint64_t size = word();
        if (size == 0) return std::nullopt;
        --size;
        if (size > bytes_.size() - at_) throw std::runtime_error("truncated bytes");
        std::string text = bytes_.substr(at_, size);
        at_ += size;
        return text;
    }
    bool done() const { return at_ == bytes_.size(); }

private:
    const std::string& bytes_;
    std::size_t at_ = 0;
};

}  // namespace rsindex
