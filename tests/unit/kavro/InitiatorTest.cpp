// The initiator calls' own work: handles, arguments, transport failures and the decoding of
// replies that break the contract. Their answers from a real recording are checked in
// store_services_test.cpp.

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
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

// A data-access service that answers whatever the test sets, however wrong, on its own
// connection to the bus of $DBUS_SYSTEM_BUS_ADDRESS (or the given one).
struct OwnLoop {
    kavro::bus::BusLoop loop_;
};

class RudeDataAccess : private OwnLoop,
                       public sdbus::AdaptorInterfaces<kavro::recording_data_access_adaptor> {
public:
    struct Answer {
        int status = 0;
        std::chrono::milliseconds stall{0};
        std::vector<std::string> names{"V1"};
        std::vector<uint32_t> keys{1};
        std::vector<uint32_t> values{1};
        std::string document;
    };

    explicit RudeDataAccess(std::unique_ptr<sdbus::IConnection> connection)
        : OwnLoop{kavro::bus::BusLoop(std::move(connection))},
          AdaptorInterfaces(loop_.connection(), kavro::bus::objectPath("recording_data_access"))
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
    int calls() const { return calls_; }

private:
    Answer behave()
    {
        ++calls_;
        Answer a;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            a = answer_;
        }
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
        Answer a = behave();
        return {sec, usec, 1, 0, 4000000000u, 999999, a.names, a.keys, a.values};
    }
    std::tuple<uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, std::string> GetMetadata(
        const uint32_t& sec, const uint32_t& usec) override
    {
        Answer a = behave();
        return {sec, usec, 1, 0, 4000000000u, 999999, a.document};
    }

    std::mutex mutex_;
    Answer answer_;
    std::atomic<int> calls_{0};
};

constexpr unsigned kUntouched = 0xdeadbeef;

void* openDataAccess()
{
    void* handle = nullptr;
    EXPECT_EQ(KAVRO_STATUS_OK, kavro_api_recording_data_access_initiator_init(nullptr, nullptr, &handle,
                                                                              nullptr, nullptr));
    return handle;
}

struct Metadata {
    kavro_core_status status;
    std::vector<unsigned> times;
    std::optional<std::string> document;
};

Metadata getMetadata(void* handle, unsigned sec = 12, unsigned usec = 34,
                     const char* service = "recording_data_access")
{
    Metadata m{KAVRO_STATUS_OK, std::vector<unsigned>(6, kUntouched), std::nullopt};
    unsigned* t = m.times.data();
    char* document = nullptr;
    m.status = kavro_api_recording_data_access_get_metadata_send(handle, service, sec, usec, &t[0], &t[1],
                                                                 &t[2], &t[3], &t[4], &t[5], &document);
    if (document) m.document = document;
    std::free(document);
    return m;
}

class Initiators : public testing::Test {
protected:
    ~Initiators() override { kavro_api_recording_data_access_initiator_deinit(handle_); }
    void* handle_ = openDataAccess();
};

// Every call goes through the same transport: one call stands for all seven here.
TEST_F(Initiators, TransportFailuresAreStatusesAndWriteNoOutput)
{
    const Metadata unknown = getMetadata(handle_);
    EXPECT_EQ(KAVRO_STATUS_SERVICE_UNKNOWN, unknown.status);
    EXPECT_EQ(std::vector<unsigned>(6, kUntouched), unknown.times);
    EXPECT_FALSE(unknown.document);

    RudeDataAccess service(kavro::bus::connectToBus());
    service.set({77, 0ms, {"V1"}, {1}, {1}, ""});
    EXPECT_EQ(77, getMetadata(handle_).status);

    service.set({0, 1500ms, {"V1"}, {1}, {1}, ""});
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(KAVRO_STATUS_TIMEOUT, getMetadata(handle_).status);
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GT(took, 800ms);  // KAVRO_CALL_TIMEOUT_MS is 1000 in the tests
    EXPECT_LT(took, 1400ms);

    const int calls = service.calls();
    EXPECT_EQ(KAVRO_STATUS_INVALID_ARGUMENT, getMetadata(handle_, 1, 0, "").status);
    EXPECT_EQ(KAVRO_STATUS_INVALID_ARGUMENT, getMetadata(nullptr).status);
    EXPECT_EQ(calls, service.calls());
}

// Several threads at once, each with its own handle.
TEST(InitiatorReplies, DocumentsArriveWholeAndTimesUnchangedOnSeveralThreads)
{
    RudeDataAccess service(kavro::bus::connectToBus());
    const std::string big = "<frame>" + std::string(1 << 20, 'x') + "</frame>";
    for (const std::string& text : {std::string(), std::string("<a b=\"&amp;\">ü</a>"), big}) {
        service.set({0, 0ms, {}, {}, {}, text});
        std::vector<std::future<unsigned>> workers;
        for (int i = 0; i < 4; ++i) {
            workers.push_back(std::async(std::launch::async, [&text] {
                void* h = openDataAccess();
                const unsigned rounds = text.size() > 1000 ? 2 : 100;
                unsigned good = 0;
                for (unsigned n = 0; n < rounds; ++n) {
                    const Metadata m = getMetadata(h, 4000000000u, n);
                    good += m.status == 0 && m.document == text &&
                            m.times == std::vector<unsigned>{4000000000u, n, 1, 0, 4000000000u, 999999};
                }
                kavro_api_recording_data_access_initiator_deinit(h);
                return rounds - good;
            }));
        }
        for (auto& w : workers) EXPECT_EQ(0u, w.get()) << "wrong answers, document of " << text.size();
    }
}

// Names, keys and values must be parallel and not empty; anything else is refused whole.
TEST_F(Initiators, HistoryEventArraysOfUnequalLengthAreAMalformedReply)
{
    RudeDataAccess service(kavro::bus::connectToBus());
    const std::vector<std::vector<size_t>> shapes = {{2, 2, 2}, {0, 0, 0}, {2, 1, 2}, {1, 2, 2},
                                                     {2, 2, 1}, {0, 1, 1}};
    for (const auto& shape : shapes) {
        service.set({0, 0ms, std::vector<std::string>(shape[0], "V1"),
                     std::vector<uint32_t>(shape[1], 1), std::vector<uint32_t>(shape[2], 0), ""});
        unsigned t[6];
        char** names = nullptr;
        unsigned int** keys = nullptr;
        unsigned int** values = nullptr;
        const kavro_core_status status = kavro_api_recording_data_access_get_recording_history_event_send(
            handle_, "recording_data_access", 5, 6, &t[0], &t[1], &t[2], &t[3], &t[4], &t[5], &names,
            &keys, &values);
        const bool wellFormed = shape[0] == 2 && shape[1] == 2 && shape[2] == 2;
        EXPECT_EQ(wellFormed ? KAVRO_STATUS_OK : KAVRO_STATUS_MALFORMED_REPLY, status)
            << shape[0] << " names, " << shape[1] << " keys, " << shape[2] << " values";
        EXPECT_EQ(wellFormed, names != nullptr && keys != nullptr && values != nullptr);
        if (wellFormed) {
            EXPECT_TRUE(!strcmp("V1", names[1]) && !names[2] && *keys[1] == 1 && !values[2]);
        }
        kavro_core_free_string_array(names);
        kavro_core_free_uint_array(keys);
        kavro_core_free_uint_array(values);
    }
}

TEST(InitiatorArguments, NullOutputsAndForeignHandlesAreRefusedWithoutACall)
{
    void* ctl = nullptr;
    void* inf = nullptr;
    ASSERT_EQ(0, kavro_api_recording_control_initiator_init(nullptr, nullptr, &ctl, nullptr, nullptr));
    ASSERT_EQ(0, kavro_api_recording_information_initiator_init(nullptr, nullptr, &inf, nullptr, nullptr));
    void* da = openDataAccess();
    unsigned u = 0;
    unsigned char c = 0;
    char** strings = nullptr;
    unsigned int** numbers = nullptr;
    char* text = nullptr;
    const char* const C = "recording_control";
    const char* const I = "recording_information";
    const char* const D = "recording_data_access";
    const std::vector<std::pair<const char*, std::function<kavro_core_status()>>> cases = {
        {"tracks", [&] { return kavro_api_recording_control_get_tracks_send(ctl, C, nullptr); }},
        {"tracks on a data-access handle", [&] { return kavro_api_recording_control_get_tracks_send(da, C, &strings); }},
        {"summary last", [&] { return kavro_api_recording_information_get_recording_summary_send(inf, I, &u, &u, &u, nullptr); }},
        {"summary first", [&] { return kavro_api_recording_information_get_recording_summary_send(inf, I, nullptr, &u, &u, &u); }},
        {"summary on a control handle", [&] { return kavro_api_recording_information_get_recording_summary_send(ctl, I, &u, &u, &u, &u); }},
        {"state", [&] { return kavro_api_recording_information_get_recording_state_send(inf, I, 1, 0, nullptr, &strings); }},
        {"tracksOn", [&] { return kavro_api_recording_information_get_recording_state_send(inf, I, 1, 0, &c, nullptr); }},
        {"track name", [&] { return kavro_api_recording_information_get_track_summary_send(inf, I, nullptr, &u, &u, &u, &u); }},
        {"track summary last", [&] { return kavro_api_recording_information_get_track_summary_send(inf, I, "META001", &u, &u, &u, nullptr); }},
        {"first time", [&] { return kavro_api_recording_data_access_get_first_recording_history_event_time_send(da, D, &u, nullptr); }},
        {"first time on an information handle", [&] { return kavro_api_recording_data_access_get_first_recording_history_event_time_send(inf, D, &u, &u); }},
        {"event cur", [&] { return kavro_api_recording_data_access_get_recording_history_event_send(da, D, 1, 0, nullptr, &u, &u, &u, &u, &u, &strings, &numbers, &numbers); }},
        {"event values", [&] { return kavro_api_recording_data_access_get_recording_history_event_send(da, D, 1, 0, &u, &u, &u, &u, &u, &u, &strings, &numbers, nullptr); }},
        {"metadata next", [&] { return kavro_api_recording_data_access_get_metadata_send(da, D, 1, 0, &u, &u, &u, &u, &u, nullptr, &text); }},
        {"metadata document", [&] { return kavro_api_recording_data_access_get_metadata_send(da, D, 1, 0, &u, &u, &u, &u, &u, &u, nullptr); }},
    };
    RudeDataAccess service(kavro::bus::connectToBus());
    for (const auto& [what, call] : cases) EXPECT_EQ(KAVRO_STATUS_INVALID_ARGUMENT, call()) << what;
    EXPECT_EQ(0, service.calls());
    EXPECT_EQ(KAVRO_STATUS_INVALID_ARGUMENT, kavro_api_recording_information_initiator_deinit(ctl));
    EXPECT_EQ(KAVRO_STATUS_INVALID_ARGUMENT,
              kavro_api_recording_control_initiator_init(nullptr, nullptr, nullptr, nullptr, nullptr));
    kavro_api_recording_control_initiator_deinit(ctl);
    kavro_api_recording_information_initiator_deinit(inf);
    kavro_api_recording_data_access_initiator_deinit(da);
}

TEST(InitiatorBus, NoBusOrABusLostMidCallIsAStatus)
{
    {
        ScopedBusAddress nowhere("unix:path=/nonexistent/rs-test-bus");
        void* handle = reinterpret_cast<void*>(0x1);
        EXPECT_EQ(KAVRO_STATUS_BUS_UNREACHABLE,
                  kavro_api_recording_data_access_initiator_init(nullptr, nullptr, &handle, nullptr, nullptr));
        EXPECT_EQ(nullptr, handle);
    }
    PrivateBus bus;
    ScopedBusAddress here(bus.address());
    void* h = openDataAccess();
    auto service = std::make_unique<RudeDataAccess>(kavro::bus::connectToBus());
    service->set({0, 1500ms, {"V1"}, {1}, {1}, ""});
    auto call = std::async(std::launch::async, [h] { return getMetadata(h).status; });
    while (service->calls() == 0) std::this_thread::sleep_for(1ms);
    bus.kill();
    ASSERT_EQ(std::future_status::ready, call.wait_for(5s));
    EXPECT_NE(KAVRO_STATUS_OK, call.get());
    service.reset();
    EXPECT_NE(KAVRO_STATUS_OK, getMetadata(h).status);
    kavro_api_recording_data_access_initiator_deinit(h);
}

}  // namespace
}  // namespace rstest
