// How statuses travel as D-Bus errors, both ways.
#include <gtest/gtest.h>

#include "kavro/bus/Contract.h"

namespace {

struct ErrorCase {
    std::string name;
    std::string message;
    int status;
};

void PrintTo(const ErrorCase& c, std::ostream* os) { *os << c.name << " \"" << c.message << '"'; }

class StatusFromError : public testing::TestWithParam<ErrorCase> {};

TEST_P(StatusFromError, GivesTheServiceNumberOrAFrameworkStatus)
{
    const auto& c = GetParam();
    EXPECT_EQ(kavro::bus::statusFromError(sdbus::Error(c.name, c.message)), c.status);
}

INSTANTIATE_TEST_SUITE_P(
    Errors, StatusFromError,
    testing::Values(ErrorCase{"kavro.Error.Status", "42", 42},
                    ErrorCase{"kavro.Error.Status", "7 track unknown", 7},
                    // The status type holds no negative value: reading one back is undefined.
                    ErrorCase{"kavro.Error.Status", "-3", KAVRO_STATUS_MALFORMED_REPLY},
                    // 0 would read as success: a status error must carry a failure.
                    ErrorCase{"kavro.Error.Status", "0", KAVRO_STATUS_MALFORMED_REPLY},
                    ErrorCase{"kavro.Error.Status", "", KAVRO_STATUS_MALFORMED_REPLY},
                    ErrorCase{"kavro.Error.Status", "12x", KAVRO_STATUS_MALFORMED_REPLY},
                    ErrorCase{"kavro.Error.Status", "99999999999", KAVRO_STATUS_MALFORMED_REPLY},
                    ErrorCase{"org.freedesktop.DBus.Error.ServiceUnknown", "", KAVRO_STATUS_SERVICE_UNKNOWN},
                    ErrorCase{"org.freedesktop.DBus.Error.NoReply", "", KAVRO_STATUS_TIMEOUT},
                    ErrorCase{"kavro.Error.Failed", "boom", KAVRO_STATUS_TRANSPORT_ERROR},
                    // Refusals of a bus name mean something else on a call.
                    ErrorCase{"org.freedesktop.DBus.Error.AccessDenied", "", KAVRO_STATUS_TRANSPORT_ERROR}));

TEST(RequestNameStatus, TellsATakenNameFromAPolicyRefusal)
{
    using kavro::bus::requestNameStatus;
    EXPECT_EQ(requestNameStatus(sdbus::Error("org.freedesktop.DBus.Error.FileExists", "")), KAVRO_STATUS_NAME_TAKEN);
    EXPECT_EQ(requestNameStatus(sdbus::Error("System.Error.EPERM", "")), KAVRO_STATUS_ACCESS_DENIED);
    EXPECT_EQ(requestNameStatus(sdbus::Error("org.freedesktop.DBus.Error.NoReply", "")), KAVRO_STATUS_TRANSPORT_ERROR);
}

TEST(StatusError, RoundTripsEveryNonzeroStatus)
{
    for (const int status : {1, 2, 77, 1005, 0x7fffffff}) {
        const auto error = kavro::bus::statusError(static_cast<kavro_core_status>(status));
        EXPECT_EQ(error.getName(), kavro::bus::kStatusErrorName);
        EXPECT_EQ(kavro::bus::statusFromError(error), status);
    }
}

}  // namespace
