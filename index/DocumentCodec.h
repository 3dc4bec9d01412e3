// Each metadata document as the index keeps it: zstd, with a dictionary trained on the
// recording's own documents once enough of them are in. A frame names the dictionary it was
// written with (zstd's dictionary id); one written before there was a dictionary names none
// and is read back without one, so documents are never written twice. Any document comes
// back byte for byte. Consecutive documents are kept together in one frame, a block: a frame
// repeats most of the one before, and zstd finds that across documents, not within one.
// Not thread-safe: one codec per thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace rsindex {

// Microseconds since 1970: a document's time as one ordered number.
using Micros = int64_t;

struct KeptText {
    Micros time = 0;
    std::string text;  // the document as the recording holds it
};

class DocumentCodec {
public:
    DocumentCodec();
    ~DocumentCodec();

    // From now on documents are written with this dictionary (as trained by train()); with an
    // empty one, without.
    void useDictionary(const std::string& dictionary);
    bool hasDictionary() const { return dictionaryId_ != 0; }

    // A block: documents in ascending time, each its distance from the first and its text.
    std::string compressBlock(const std::vector<KeptText>& texts);
    // Throws std::runtime_error for bytes that are not a block this codec can read.
    std::vector<KeptText> decompressBlock(Micros first, std::string_view frame);

    // A dictionary for documents like these samples; empty when zstd finds too little in them.
    static std::string train(const std::vector<std::string>& samples);

    DocumentCodec(const DocumentCodec&) = delete;
    DocumentCodec& operator=(const DocumentCodec&) = delete;

private:
    std::string compress(std::string_view text);
    // Throws std::runtime_error for bytes that are not a frame this codec can read.
    std::string decompress(std::string_view frame);

    struct Contexts;
    std::unique_ptr<Contexts> contexts_;
    uint32_t dictionaryId_ = 0;
};

}  // namespace rsindex
