// What the index reads back from its file, which may be damaged: a document's facts and a block
// of texts, as any bytes. Besides surviving (only std::runtime_error leaves the readers), what
// reads must hold: facts encode back to bytes that decode the same, and a block written from
// the texts it read (or from texts cut out of the input) reads back to exactly those texts.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "index/DocumentCodec.h"
#include "index/DocumentFacts.h"

namespace {

[[noreturn]] void broken(const char* promise)
{
    std::fprintf(stderr, "broken promise: %s\n", promise);
    std::abort();
}

bool same(const std::vector<rsindex::KeptText>& a, const std::vector<rsindex::KeptText>& b)
{
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (a[i].time != b[i].time || a[i].text != b[i].text) return false;
    }
    return true;
}

void roundTrip(rsindex::DocumentCodec& codec, const std::vector<rsindex::KeptText>& texts)
{
    if (texts.empty()) return;
    if (!same(codec.decompressBlock(texts.front().time, codec.compressBlock(texts)), texts)) {
        broken("a block reads back as written");
    }
}

// Texts cut from the input at each '\n', a few microseconds apart.
std::vector<rsindex::KeptText> cut(const std::string& bytes)
{
    std::vector<rsindex::KeptText> texts;
    rsindex::Micros at = 1704067200000000;
    std::string::size_type from = 0;
    while (from <= bytes.size()) {
        const auto end = std::min(bytes.find('\n', from), bytes.size());
        texts.push_back({at, bytes.substr(from, end - from)});
        at += 1 + rsindex::Micros(texts.back().text.size()) * 1000;
        from = end + 1;
    }
    return texts;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    try {
        const rsindex::DocumentFacts facts = rsindex::decode(bytes);
        const std::string again = rsindex::encode(facts);
        if (rsindex::encode(rsindex::decode(again)) != again) broken("facts decode as encoded");
    } catch (const std::runtime_error&) {
    }
    static rsindex::DocumentCodec codec;
    try {
        roundTrip(codec, codec.decompressBlock(1704067200000000, bytes));
    } catch (const std::runtime_error&) {
    }
    roundTrip(codec, cut(bytes));
    return 0;
}
