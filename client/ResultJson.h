// The JSON object of each line a client prints or streams for a search (recsearch --json and
// the gateway alike). Keys in the order a person reads them: which search, what, when, then
// the details.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

#include "client/Coverage.h"
#include "client/IndexAnswers.h"
#include "client/SearchOutput.h"

namespace rsclient {

using Json = nlohmann::ordered_json;

Json resultJson(const SearchResult& result);
Json spanJson(uint32_t jobId, const Span& span);
Json bucketJson(const Bucket& bucket);
Json gapJson(const Segment& gap);
Json stateJson(uint32_t jobId, uint32_t state);
Json endedJson(uint32_t jobId, TimePoint reached);  // ended on request of another client
Json searchEndJson(const SearchEnd& end);
Json noticeJson(uint32_t jobId, const std::string& text);
Json countJson(const MatchCount& count);
Json indexJson(const IndexState& state);
// What the last line says of a search that a failing recording service cut short.
std::string incompleteText(const SearchEnd& end);

// One line, newline included. Invalid UTF-8 (in a track name) is replaced, never an error.
std::string jsonLine(const Json& json);

const char* stateName(uint32_t state);  // searching, completed, unknown
void addTime(Json& json, TimePoint t);

}  // namespace rsclient
