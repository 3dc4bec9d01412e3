// The schema's simple values as SOAP requests carry them: xs:dateTime, xs:duration, xs:boolean,
// xs:int. Each reader says what is wrong with a bad value, in words for the fault's reason.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "client/TimeText.h"

namespace onvif {

// "2024-01-01T10:00:00Z", with a fraction and a zone offset ("+01:00") or none (taken as UTC).
// Fractions beyond microseconds are cut; times outside 1970-2106 are refused.
std::optional<rsclient::TimePoint> readDateTime(const std::string& text, std::string* why);
std::string dateTimeText(rsclient::TimePoint t);  // 2024-01-01T10:00:00.250Z, or without fraction

// "PT10S", "P1DT2H", "PT0.5S": years and months are refused (their length is not fixed).
std::optional<std::chrono::milliseconds> readDuration(const std::string& text, std::string* why);

std::optional<bool> readBoolean(const std::string& text);  // true, false, 1, 0
std::optional<int32_t> readInt(const std::string& text);

}  // namespace onvif
