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

TEST(StatusToString, UnknownStatusNamesItsNumber)
{
    // A recording service's own status numbers travel unchanged and have no name of ours.
    for (const int value : {2, 77, 999, -5}) {
        const std::string text = statusToString(static_cast<kavro_core_status>(value));
        EXPECT_NE(text.find(std::to_string(value)), std::string::npos) << text;
    }
}

}  // namespace
