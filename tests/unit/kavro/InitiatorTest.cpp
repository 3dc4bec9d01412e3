// The initiator calls' own work: arguments, transport failures and the decoding of replies that
// break the contract. Their answers from a real recording are checked in store_services_test.cpp.
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "kavro/bus/BusLoop.h"
#include "kavro/bus/Contract.h"
#include "kavro/generated/recording_data_access_adaptor.h"
#include "kavro/recording_initiators.h"
#include "support/PrivateBus.h"

namespace rstest {
namespace {

using namespace std::chrono_literals;

struct OwnLoop {  // a base, so that the loop outlives the adaptor
    kavro::bus::BusLoop loop_{kavro::bus::connectToBus()};
};

// A data-access service that answers whatever the test sets, however wrong, on the bus of
// $DBUS_SYSTEM_BUS_ADDRESS.
class RudeDataAccess : private OwnLoop,
                       public sdbus::AdaptorInterfaces<kavro::recording_data_access_adaptor> {
public:
    struct Answer {
        int status = 0;
        std::chrono::milliseconds stall{};
        std::string document;
        std::vector<std::string> names{"V1", "V2"};
        std::vector<uint32_t> keys{1, 2}, values{1, 0};
    };

    RudeDataAccess()
        : AdaptorInterfaces(loop_.connection(), kavro::bus::objectPath("recording_data_access"))
    {
        registerAdaptor();
        loop_.connection().requestName(kavro::bus::busName("recording_data_access"));
        loop_.start();
    }
    ~RudeDataAccess()
    {
        loop_.stop();
        unregisterAdaptor();
    }
    void set(Answer answer)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        answer_ = std::move(answer);
    }
    std::atomic<int> calls{0};

private:
    Answer behave()
    {
        ++calls;
        const Answer a = [this] {
            std::lock_guard<std::mutex> lock(mutex_);
            return answer_;
        }();
        std::this_thread::sleep_for(a.stall);
        if (a.status != 0) throw kavro::bus::statusError(kavro_core_status(a.status));
        return a;
    }
    std::tuple<uint32_t, uint32_t> GetFirstRecordingHistoryEventTime() override
    {
        behave();
        return {1, 2};
    }
    std::tuple<uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, std::vector<std::string>,
               std::vector<uint32_t>, std::vector<uint32_t>>
    GetRecordingHistoryEvent(const uint32_t& sec, const uint32_t& usec) override
    {
        const Answer a = behave();
        return {sec, usec, 1, 0, 4000000000u, 999999, a.names, a.keys, a.values};
    }
    std::tuple<uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, std::string> GetMetadata(
        const uint32_t& sec, const uint32_t& usec) override
    {
        return {sec, usec, 1, 0, 4000000000u, 999999, behave().document};
    }

    std::mutex mutex_;
    Answer answer_;
};

constexpr unsigned kUntouched = 0xdeadbeef;

void* openDataAccess()
{
    void* handle = nullptr;
    EXPECT_EQ(KAVRO_STATUS_OK, kavro_api_recording_data_access_initiator_init(
                                   nullptr, nullptr, &handle, nullptr, nullptr));
    return handle;
}

struct Reply {
    kavro_core_status status;
    std::vector<unsigned> times = std::vector<unsigned>(6, kUntouched);
    std::optional<std::string> document;
    bool arrays = false;
};

Reply getMetadata(void* handle, unsigned sec = 12, unsigned usec = 34,
                  const char* service = "recording_data_access")
{
    Reply r;
    unsigned* t = r.times.data();
    char* document = nullptr;
    r.status = kavro_api_recording_data_access_get_metadata_send(
        handle, service, sec, usec, &t[0], &t[1], &t[2], &t[3], &t[4], &t[5], &document);
    if (document) r.document = document;
    std::free(document);
    return r;
}

// The arrays' contents from a real service are store_services_test.cpp's; here, whether any
// output was written.
Reply getHistoryEvent(void* handle)
{
    Reply r;
    unsigned* t = r.times.data();
    char** names = nullptr;
    unsigned** keys = nullptr;
    unsigned** values = nullptr;
    r.status = kavro_api_recording_data_access_get_recording_history_event_send(
        handle, "recording_data_access", 5, 6, &t[0], &t[1], &t[2], &t[3], &t[4], &t[5], &names,
        &keys, &values);
    r.arrays = names || keys || values;
    kavro_core_free_string_array(names);
    kavro_core_free_uint_array(keys);
    kavro_core_free_uint_array(values);
    return r;
}

class Initiators : public testing::Test {
protected:
    ~Initiators() override { kavro_api_recording_data_access_initiator_deinit(handle_); }
    void* handle_ = openDataAccess();
};

// Every call goes through the same transport: one call stands for all seven here.
TEST_F(Initiators, AnswersArriveWholeAndTransportFailuresAreStatusesThatWriteNoOutput)
{
    const Reply unknown = getMetadata(handle_);
    EXPECT_EQ(KAVRO_STATUS_SERVICE_UNKNOWN, unknown.status);
    EXPECT_EQ(std::vector<unsigned>(6, kUntouched), unknown.times);
    EXPECT_FALSE(unknown.document);

    RudeDataAccess service;
    const std::string text = "<a b=\"&amp;\">ü" + std::string(1 << 20, 'x') + "</a>";
    service.set({0, 0ms, text});
    const Reply whole = getMetadata(handle_, 4000000000u, 7);
    EXPECT_EQ(whole.times, (std::vector<unsigned>{4000000000u, 7, 1, 0, 4000000000u, 999999}));
    EXPECT_TRUE(whole.status == KAVRO_STATUS_OK && whole.document == text);
    service.set({77, {}, {}});
    EXPECT_EQ(77, getMetadata(handle_).status);

    service.set({0, 1500ms, {}});
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(KAVRO_STATUS_TIMEOUT, getMetadata(handle_).status);
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GT(took, 800ms);  // KAVRO_CALL_TIMEOUT_MS is 1000 in the tests
    EXPECT_LT(took, 1400ms);

    EXPECT_EQ(KAVRO_STATUS_INVALID_ARGUMENT, getMetadata(handle_, 1, 0, "").status);
    EXPECT_EQ(KAVRO_STATUS_INVALID_ARGUMENT, getMetadata(nullptr).status);
}

// Names, keys and values must be parallel and not empty; anything else is refused whole.
TEST_F(Initiators, HistoryEventArraysOfUnequalLengthAreAMalformedReply)
{
    RudeDataAccess service;
    const Reply good = getHistoryEvent(handle_);
    EXPECT_EQ(KAVRO_STATUS_OK, good.status);
    EXPECT_TRUE(good.arrays);
    const size_t shapes[][3] = {{0, 0, 0}, {2, 1, 2}, {1, 2, 2}, {2, 2, 1}, {0, 1, 1}};
    for (const auto& [n, k, v] : shapes) {
        RudeDataAccess::Answer shaped;
        shaped.names.resize(n), shaped.keys.resize(k), shaped.values.resize(v);
        service.set(shaped);
        const Reply bad = getHistoryEvent(handle_);
        EXPECT_EQ(KAVRO_STATUS_MALFORMED_REPLY, bad.status)
            << n << " names, " << k << " keys, " << v << " values";
        EXPECT_FALSE(bad.arrays);
        EXPECT_EQ(bad.times, std::vector<unsigned>(6, kUntouched));
    }
}

// What sd-bus reports of a bus that is gone reaches the caller as a status like any other.
TEST(InitiatorBus, NoBusOrALostBusIsAStatus)
{
    {
        ScopedBusAddress nowhere("unix:path=/nonexistent/rs-test-bus");
        void* handle = reinterpret_cast<void*>(0x1);
        EXPECT_EQ(KAVRO_STATUS_BUS_UNREACHABLE, kavro_api_recording_data_access_initiator_init(
                                                    nullptr, nullptr, &handle, nullptr, nullptr));
        EXPECT_EQ(nullptr, handle);
    }
    PrivateBus bus;
    ScopedBusAddress here(bus.address());
    void* h = openDataAccess();
    {
        RudeDataAccess service;
        EXPECT_EQ(KAVRO_STATUS_OK, getMetadata(h).status);
        bus.kill();
        EXPECT_NE(KAVRO_STATUS_OK, getMetadata(h).status);
    }
    kavro_api_recording_data_access_initiator_deinit(h);
}

}  // namespace
}  // namespace rstest
