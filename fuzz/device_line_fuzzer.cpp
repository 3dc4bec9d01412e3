// What a device may send a merge: any bytes, cut into lines, read as the lines of one search.
// The first byte picks the search (events, metadata, spans, counts, a summary; either way).
// Besides surviving (no exception leaves the reader), what it passes on must be what a merge
// can trust: one JSON object whose only "device" is ours, at a time inside the range, each
// result after the one before.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <nlohmann/json.hpp>

#include "client/DeviceLine.h"

namespace {

[[noreturn]] void broken(const char* promise)
{
    std::fprintf(stderr, "broken promise: %s\n", promise);
    std::abort();
}

rsclient::SearchRequest requestOf(uint8_t choice)
{
    rsclient::SearchRequest r;
    const rsclient::SearchRequest::Kind kinds[] = {rsclient::SearchRequest::Kind::Events,
                                                   rsclient::SearchRequest::Kind::Metadata,
                                                   rsclient::SearchRequest::Kind::Summary};
    r.kind = kinds[choice % 3];
    if (choice & 4) r.spanGap = rsclient::Micros(2000000);
    if (choice & 8) r.countBucket = rsclient::Micros(60000000);
    r.start = {1704067200, 0};
    r.end = {1704070800, 0};
    if (choice & 16) std::swap(r.start, r.end);
    return r;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) return 0;
    const rsclient::SearchRequest request = requestOf(data[0]);
    rsclient::DeviceLineReader reader("cam", request);
    const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    const int64_t lo = 1704067200000000, hi = 1704070800000000;
    std::optional<rsclient::MergeKey> last;
    std::size_t from = 0;
    while (from <= text.size()) {
        const std::size_t end = std::min(text.find('\n', from), text.size());
        const rsclient::DeviceLine line =
            reader.read(std::string_view(text).substr(from, end - from));
        from = end + 1;
        if (line.kind == rsclient::DeviceLine::Kind::Failed) return 0;  // the device is out
        if (line.kind != rsclient::DeviceLine::Kind::Result &&
            line.kind != rsclient::DeviceLine::Kind::Aside &&
            line.kind != rsclient::DeviceLine::Kind::Incomplete) {
            continue;
        }
        const auto j = nlohmann::json::parse(line.text, nullptr, false);
        if (!j.is_object()) broken("a line passed on that is not a JSON object");
        if (j.value("device", "") != "cam") broken("a line passed on under another name");
        if (line.text.rfind("{\"device\":\"cam\"", 0) != 0) broken("our tag is not first");
        if (line.kind != rsclient::DeviceLine::Kind::Result) continue;
        if (line.key.micros < lo || line.key.micros > hi) broken("a time outside the range");
        if (last && line.key.rank == last->rank &&
            (request.start.sec < request.end.sec ? line.key.micros < last->micros
                                                 : line.key.micros > last->micros)) {
            broken("a result before the one before it");
        }
        if (last && line.key.rank < last->rank) broken("a rank after a higher one");
        last = line.key;
    }
    return 0;
}
