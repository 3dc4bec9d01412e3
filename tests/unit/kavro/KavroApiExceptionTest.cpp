#include <string>

#include <gtest/gtest.h>

#include "kavro/KavroApiException.h"

namespace {

// A recording service's own status numbers travel unchanged and have no name of ours.
TEST(StatusToString, UnknownStatusNamesItsNumber)
{
    for (const int value : {2, 77, 999, -5}) {
        const std::string text = kavro::core::statusToString(static_cast<kavro_core_status>(value));
        EXPECT_NE(text.find(std::to_string(value)), std::string::npos) << text;
    }
}

}  // namespace
