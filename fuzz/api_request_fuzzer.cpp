// The gateway's reading of a request body: any bytes a client sends, to any of the routes that
// take a body. The first byte picks the route, the rest is the body. Besides surviving (no
// deep recursion, no exception other than a refusal), what comes out must be a request the
// service can be asked: no NUL cut into the expression, no summary of more buckets than
// allowed, times in their range.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "client/Coverage.h"
#include "web/ApiRequest.h"

namespace {

[[noreturn]] void broken(const char* promise)
{
    std::fprintf(stderr, "broken promise: %s\n", promise);
    std::abort();
}

void checkRequest(const rsclient::SearchRequest& r)
{
    if (r.kind == rsclient::SearchRequest::Kind::Noop) broken("a request of no kind");
    if (r.xpath.find('\0') != std::string::npos) broken("a NUL inside the expression");
    if (r.kind == rsclient::SearchRequest::Kind::Summary &&
        !rsclient::checkBucketCount(r.start, r.end, r.bucket).empty()) {
        broken("a summary of more buckets than allowed");
    }
    if (r.spanGap && r.spanGap->count() <= 0) broken("a gap of no length");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) return 0;
    const std::string body(reinterpret_cast<const char*>(data) + 1, size - 1);
    try {
        const nlohmann::json parsed = web::parseBody(body);
        switch (data[0] % 5) {
        case 0: checkRequest(web::eventsRequest(parsed)); break;
        case 1: checkRequest(web::metadataRequest(parsed)); break;
        case 2: checkRequest(web::summaryRequest(parsed)); break;
        case 3: checkRequest(web::pictureRequest(parsed)); break;
        default:
            if (web::xpathOf(parsed).find('\0') != std::string::npos) broken("a NUL in the xpath");
            break;
        }
    } catch (const web::ApiError& e) {
        if (e.status() != 400) broken("a refusal other than 400");
        if (std::string(e.what()).size() > 400) broken("a refusal that quotes too much");
    }
    return 0;
}
