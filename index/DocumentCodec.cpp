#include "index/DocumentCodec.h"

#include <zdict.h>
#include <zstd.h>

#include <cstdint>
#include <stdexcept>

#include "index/CompactBytes.h"

namespace rsindex {

namespace {

constexpr int kLevel = 3;
constexpr std::size_t kDictionaryBytes = 32 << 10;
// A frame that claims more than this is not one of ours: the recording's documents are read
// through the same bound as the walk's parser, with room to spare.
constexpr unsigned long long kLargestDocument = 64ull << 20;

}  // namespace

struct DocumentCodec::Contexts {
    ZSTD_CCtx* compress = ZSTD_createCCtx();
    ZSTD_DCtx* decompress = ZSTD_createDCtx();
    ZSTD_CDict* writeWith = nullptr;
    ZSTD_DDict* readWith = nullptr;
    ~Contexts()
    {
        ZSTD_freeCCtx(compress);
        ZSTD_freeDCtx(decompress);
        ZSTD_freeCDict(writeWith);
        ZSTD_freeDDict(readWith);
    }
};

DocumentCodec::DocumentCodec() : contexts_(std::make_unique<Contexts>()) {}

DocumentCodec::~DocumentCodec() = default;

void DocumentCodec::useDictionary(const std::string& dictionary)
{
    ZSTD_freeCDict(contexts_->writeWith);
    ZSTD_freeDDict(contexts_->readWith);
    contexts_->writeWith = nullptr;
    contexts_->readWith = nullptr;
    dictionaryId_ = 0;
    if (dictionary.empty()) return;
    contexts_->writeWith = ZSTD_createCDict(dictionary.data(), dictionary.size(), kLevel);
    contexts_->readWith = ZSTD_createDDict(dictionary.data(), dictionary.size());
    dictionaryId_ = ZSTD_getDictID_fromDict(dictionary.data(), dictionary.size());
}

std::string DocumentCodec::compress(std::string_view text)
{
    std::string frame(ZSTD_compressBound(text.size()), '\0');
    const std::size_t size =
        contexts_->writeWith != nullptr
            ? ZSTD_compress_usingCDict(contexts_->compress, frame.data(), frame.size(), text.data(),
                                       text.size(), contexts_->writeWith)
            : ZSTD_compressCCtx(contexts_->compress, frame.data(), frame.size(), text.data(),
                                text.size(), kLevel);
    if (ZSTD_isError(size)) throw std::runtime_error(ZSTD_getErrorName(size));
    frame.resize(size);
    return frame;
}

std::string DocumentCodec::decompress(std::string_view frame)
{
    const unsigned long long size = ZSTD_getFrameContentSize(frame.data(), frame.size());
    if (size == ZSTD_CONTENTSIZE_ERROR || size == ZSTD_CONTENTSIZE_UNKNOWN ||
        size > kLargestDocument) {
        throw std::runtime_error("not a document frame");
    }
    const unsigned dictionary = ZSTD_getDictID_fromFrame(frame.data(), frame.size());
    if (dictionary != 0 && dictionary != dictionaryId_) {
        throw std::runtime_error("a frame of another dictionary");
    }
    std::string text(size, '\0');
    const std::size_t got =
        dictionary != 0
            ? ZSTD_decompress_usingDDict(contexts_->decompress, text.data(), text.size(),
                                         frame.data(), frame.size(), contexts_->readWith)
            : ZSTD_decompressDCtx(contexts_->decompress, text.data(), text.size(), frame.data(),
                                  frame.size());
    if (ZSTD_isError(got) || got != size) throw std::runtime_error("a damaged document frame");
    return text;
}

std::string DocumentCodec::compressBlock(const std::vector<KeptText>& texts)
{
    std::string bytes;
    putWord(bytes, texts.size());
    for (const auto& kept : texts) {
        putWord(bytes, uint64_t(kept.time - texts.front().time));
        putText(bytes, kept.text);
    }
    return compress(bytes);
}

std::vector<KeptText> DocumentCodec::decompressBlock(Micros first, std::string_view frame)
{
    const std::string bytes = decompress(frame);
    Reader in(bytes);
    std::vector<KeptText> texts(in.count());
    for (auto& kept : texts) {
        const uint64_t after = in.word();
        if (after > uint64_t(INT64_MAX - first)) throw std::runtime_error("a damaged block");
        kept.time = first + Micros(after);
        kept.text = in.text().value_or("");
    }
    if (!in.done()) throw std::runtime_error("a damaged block");
    return texts;
}

std::string DocumentCodec::train(const std::vector<std::string>& samples)
{
    std::string joined;
    std::vector<std::size_t> sizes;
    for (const auto& sample : samples) {
        joined += sample;
        sizes.push_back(sample.size());
    }
    std::string dictionary(kDictionaryBytes, '\0');
    const std::size_t size = ZDICT_trainFromBuffer(
        dictionary.data(), dictionary.size(), joined.data(), sizes.data(), unsigned(sizes.size()));
    if (ZDICT_isError(size)) return "";
    dictionary.resize(size);
    return dictionary;
}

}  // namespace rsindex
