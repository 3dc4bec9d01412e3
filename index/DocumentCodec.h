// Each metadata document as the index keeps it: zstd, with a dictionary trained on the
// recording's own documents once enough of them are in. A frame names the dictionary it was
// written with (zstd's dictionary id); one written before there was a dictionary names none
// and is read back without one, so documents are never written twice. Any document comes
// back byte for byte. Not thread-safe: one codec per thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace rsindex {

class DocumentCodec {
public:
    DocumentCodec();
    ~DocumentCodec();

    // From now on documents are written with this dictionary (as trained by train()); with an
    // empty one, without.
    void useDictionary(const std::string& dictionary);
    bool hasDictionary() const { return dictionaryId_ != 0; }

    std::string compress(std::string_view text);
    // Throws std::runtime_error for bytes that are not a frame this codec can read.
    std::string decompress(std::string_view frame);

    // A dictionary for documents like these samples; empty when zstd finds too little in them.
    static std::string train(const std::vector<std::string>& samples);

    DocumentCodec(const DocumentCodec&) = delete;
    DocumentCodec& operator=(const DocumentCodec&) = delete;

private:
    struct Contexts;
    std::unique_ptr<Contexts> contexts_;
    uint32_t dictionaryId_ = 0;
};

}  // namespace rsindex
