#include <set>
#include <string>

#include <gtest/gtest.h>

#include "kavro/KavroApiException.h"

namespace {

using kavro::core::KavroApiException;
using kavro::core::statusToString;

TEST(KavroApiException, MessageIsCallThenStatusTextInParentheses)
{
    const KavroApiException e("Failed kavro api call: kavro_core_init()", KAVRO_STATUS_FAILED);
    EXPECT_EQ(std::string(e.what()),
              "Failed kavro api call: kavro_core_init() (" + statusToString(KAVRO_STATUS_FAILED) + ")");
}

// Every status a log line may carry has a text of its own, so that two failures never read alike.
TEST(StatusToString, EveryKnownStatusHasItsOwnText)
{
    const kavro_core_status all[] = {
        KAVRO_STATUS_OK,          KAVRO_STATUS_FAILED,          KAVRO_STATUS_INVALID_ARGUMENT,
        KAVRO_STATUS_NOT_INITIALISED, KAVRO_STATUS_NO_MEMORY,   KAVRO_STATUS_BUS_UNREACHABLE,
        KAVRO_STATUS_SERVICE_UNKNOWN, KAVRO_STATUS_TIMEOUT,     KAVRO_STATUS_MALFORMED_REPLY,
        KAVRO_STATUS_TRANSPORT_ERROR, KAVRO_STATUS_NAME_TAKEN,  KAVRO_STATUS_BUS_LOST,
        KAVRO_STATUS_IO_ERROR};
    std::set<std::string> texts;
    for (const auto status : all) {
        const std::string text = statusToString(status);
        EXPECT_FALSE(text.empty()) << status;
        texts.insert(text);
    }
    EXPECT_EQ(texts.size(), std::size(all));
}

TEST(StatusToString, UnknownStatusNamesItsNumber)
{
    // A recording service's own status numbers travel unchanged and have no name of ours.
    for (const int value : {2, 77, 999, -5}) {
        const std::string text = statusToString(static_cast<kavro_core_status>(value));
        EXPECT_NE(text.find(std::to_string(value)), std::string::npos) << text;
    }
}

}  // namespace
