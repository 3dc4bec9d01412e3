// How statuses travel as D-Bus errors, both ways, and what a refused bus name means.
#include <gtest/gtest.h>

#include "kavro/bus/Contract.h"

namespace {

TEST(Contract, ErrorsBecomeTheServiceNumberOrAFrameworkStatus)
{
    using namespace kavro::bus;
    constexpr auto kMalformed = KAVRO_STATUS_MALFORMED_REPLY;
    constexpr auto kTransport = KAVRO_STATUS_TRANSPORT_ERROR;
    struct Case {
        const char* name;
        const char* message;
        int onCall;
        int onRequestName;
    };
    const Case cases[] = {
        {"kavro.Error.Status", "7 track unknown", 7, kTransport},
        // A status error must carry a failure, and the status type holds no negative value.
        {"kavro.Error.Status", "0", kMalformed, kTransport},
        {"kavro.Error.Status", "-3", kMalformed, kTransport},
        {"kavro.Error.Status", "", kMalformed, kTransport},
        {"kavro.Error.Status", "12x", kMalformed, kTransport},
        {"kavro.Error.Status", "99999999999", kMalformed, kTransport},
        {"org.freedesktop.DBus.Error.NoReply", "", KAVRO_STATUS_TIMEOUT, kTransport},
        {"kavro.Error.Failed", "boom", kTransport, kTransport},
        // Refusals of a bus name tell a second instance from a policy problem, and only there.
        {"org.freedesktop.DBus.Error.FileExists", "", kTransport, KAVRO_STATUS_NAME_TAKEN},
        {"System.Error.EPERM", "", kTransport, KAVRO_STATUS_ACCESS_DENIED},
    };
    for (const Case& c : cases) {
        const sdbus::Error error(c.name, c.message);
        EXPECT_EQ(statusFromError(error), c.onCall) << c.name << " \"" << c.message << '"';
        EXPECT_EQ(requestNameStatus(error), c.onRequestName) << c.name;
    }
    EXPECT_EQ(statusFromError(statusError(static_cast<kavro_core_status>(0x7fffffff))), 0x7fffffff);
}

}  // namespace
