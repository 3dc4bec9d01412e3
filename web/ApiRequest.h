// The API's JSON bodies read into what clients ask the service, with the messages recsearch
// gives for the same bad values.
#pragma once

#include <stdexcept>
#include <string>

#include <nlohmann/json.hpp>

#include "client/SearchRequest.h"

namespace web {

// A request the gateway answers with `status` and {"error": message}, and {"field": field} when
// one field of the body is at fault.
class ApiError : public std::runtime_error {
public:
    ApiError(int status, const std::string& message, std::string field = "")
        : std::runtime_error(message), status_(status), field_(std::move(field))
    {
    }
    int status() const { return status_; }
    const std::string& field() const { return field_; }

private:
    int status_;
    std::string field_;
};

// Throws ApiError 400 for a body that is not a JSON object, or that nests too deep.
nlohmann::json parseBody(const std::string& body);

rsclient::SearchRequest eventsRequest(const nlohmann::json& body);
rsclient::SearchRequest metadataRequest(const nlohmann::json& body);
rsclient::SearchRequest summaryRequest(const nlohmann::json& body);
// The range drawn as `recsearch events --start-state --svg` draws it.
rsclient::SearchRequest pictureRequest(const nlohmann::json& body);
// The filters (and optional xpath) as one expression, as --show-xpath prints it.
std::string xpathOf(const nlohmann::json& body);

}  // namespace web
