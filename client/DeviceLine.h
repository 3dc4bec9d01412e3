// One line of a device's stream, read without trusting it: a device's firmware is not ours, and
// a compromised one is one hostile client away. Every field is checked for its type, every time
// for the search's range and the device's own order, and the kinds for the search asked; what
// passes is written anew with our tag as its only "device". Nothing here throws.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "client/DeviceMerge.h"
#include "client/SearchRequest.h"

namespace rsclient {

struct DeviceLine {
    enum class Kind {
        Result,      // `key`, `text`
        Progress,    // `key`: through; `searched`: how far the search really got
        Aside,       // `text`: a notice, passed on at once
        Completed,   //
        Incomplete,  // `text`, and `error`: the device's own words
        Failed,      // `error`: the device broke the stream's rules, or said it failed
        Other,       // nothing to act on (the search's id, say)
    };
    Kind kind = Kind::Other;
    MergeKey key;
    int64_t searched = 0;
    std::string text;
    std::string error;
};

class DeviceLineReader {
public:
    DeviceLineReader(std::string device, const SearchRequest& request);

    DeviceLine read(std::string_view text);

private:
    DeviceLine result(const std::string& kind, const nlohmann::ordered_json& line);
    DeviceLine progress(const nlohmann::ordered_json& line);
    std::optional<int64_t> timeIn(const nlohmann::ordered_json& line, const char* sec,
                                  const char* usec) const;
    bool allowed(const std::string& kind) const;
    std::string tagged(const nlohmann::ordered_json& line) const;

    std::string device_;
    SearchRequest::Kind search_;
    bool spans_;
    bool counts_;
    bool backward_;
    int64_t lo_;
    int64_t hi_;
    std::optional<MergeKey> last_;  // the device's last result
    int64_t through_;               // its last progress, for its own order
};

// What a device's answer other than 200 says, as a short text: its "error" when that is a
// text, or an excerpt of the body.
std::string errorBodyText(const std::string& body);

}  // namespace rsclient
