// One answer of the gateway, before the transport sends it: a status, a body or a stream,
// and the headers of its own.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace web {

class SearchStream;

struct Reply {
    int status = 200;
    std::string contentType = "application/json";
    std::string body;
    std::vector<std::pair<std::string, std::string>> headers;
    std::shared_ptr<SearchStream> stream;  // when set, the body streams from it
    bool api = true;                       // API answers are never cached
};

// {"error": message}, and {"field": field} when one field of the request is at fault.
Reply errorReply(int status, const std::string& message, const std::string& field = "");

// 503 (or 429) with Retry-After: a bound that frees itself.
Reply retryLaterReply(int status, const std::string& message);

}  // namespace web
