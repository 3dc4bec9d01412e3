// The initiator calls of the three recording services, against the scripted stand-ins.
#include <chrono>
#include <cstdlib>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "kavro/recording_initiators.h"
#include "support/PrivateBus.h"
#include "support/ScriptedRecordingServices.h"

namespace rstest {
namespace {

using namespace std::chrono_literals;

constexpr unsigned kUntouched = 0xdeadbeef;

struct Handles {
    void* control = nullptr;
    void* information = nullptr;
    void* dataAccess = nullptr;
};

Handles openHandles()
{
    Handles h;
    EXPECT_EQ(kavro_api_recording_control_initiator_init(nullptr, nullptr, &h.control, nullptr, nullptr),
              KAVRO_STATUS_OK);
    EXPECT_EQ(kavro_api_recording_information_initiator_init(nullptr, nullptr, &h.information, nullptr,
                                                             nullptr),
              KAVRO_STATUS_OK);
    EXPECT_EQ(kavro_api_recording_data_access_initiator_init(nullptr, nullptr, &h.dataAccess, nullptr,
                                                             nullptr),
              KAVRO_STATUS_OK);
    return h;
}

void closeHandles(Handles& h)
{
    kavro_api_recording_control_initiator_deinit(h.control);
    kavro_api_recording_information_initiator_deinit(h.information);
    kavro_api_recording_data_access_initiator_deinit(h.dataAccess);
    h = {};
}

size_t length(char** array)
{
    size_t n = 0;
    while (array[n] != nullptr) ++n;
    return n;
}

size_t length(unsigned int** array)
{
    size_t n = 0;
    while (array[n] != nullptr) ++n;
    return n;
}

// One call per method, with the service names the service itself uses. On failure the outputs
// must be as the caller left them.
struct CallCase {
    const char* method;
    std::function<kavro_core_status(const Handles&, const char* service)> call;
};

std::ostream& operator<<(std::ostream& os, const CallCase& c) { return os << c.method; }

std::vector<CallCase> allCalls()
{
    return {
        {"GetTracks",
         [](const Handles& h, const char* service) {
             char** tracks = nullptr;
             const auto s = kavro_api_recording_control_get_tracks_send(
                 h.control, service ? service : "recording_control", &tracks);
             if (s != KAVRO_STATUS_OK) {
                 EXPECT_EQ(tracks, nullptr);
             }
             kavro_core_free_string_array(tracks);
             return s;
         }},
        {"GetRecordingSummary",
         [](const Handles& h, const char* service) {
             unsigned a = kUntouched, b = kUntouched, c = kUntouched, d = kUntouched;
             const auto s = kavro_api_recording_information_get_recording_summary_send(
                 h.information, service ? service : "recording_information", &a, &b, &c, &d);
             if (s != KAVRO_STATUS_OK) {
                 EXPECT_EQ((std::vector<unsigned>{a, b, c, d}), std::vector<unsigned>(4, kUntouched));
             }
             return s;
         }},
        {"GetRecordingState",
         [](const Handles& h, const char* service) {
             unsigned char state = 0xee;
             char** tracksOn = nullptr;
             const auto s = kavro_api_recording_information_get_recording_state_send(
                 h.information, service ? service : "recording_information", 10, 0, &state, &tracksOn);
             if (s != KAVRO_STATUS_OK) {
                 EXPECT_EQ(state, 0xee);
                 EXPECT_EQ(tracksOn, nullptr);
             }
             kavro_core_free_string_array(tracksOn);
             return s;
         }},
        {"GetTrackSummary",
         [](const Handles& h, const char* service) {
             unsigned a = kUntouched, b = kUntouched, c = kUntouched, d = kUntouched;
             const auto s = kavro_api_recording_information_get_track_summary_send(
                 h.information, service ? service : "recording_information", "META001", &a, &b, &c, &d);
             if (s != KAVRO_STATUS_OK) {
                 EXPECT_EQ((std::vector<unsigned>{a, b, c, d}), std::vector<unsigned>(4, kUntouched));
             }
             return s;
         }},
        {"GetFirstRecordingHistoryEventTime",
         [](const Handles& h, const char* service) {
             unsigned sec = kUntouched, usec = kUntouched;
             const auto s = kavro_api_recording_data_access_get_first_recording_history_event_time_send(
                 h.dataAccess, service ? service : "recording_data_access", &sec, &usec);
             if (s != KAVRO_STATUS_OK) {
                 EXPECT_EQ((std::vector<unsigned>{sec, usec}), std::vector<unsigned>(2, kUntouched));
             }
             return s;
         }},
        {"GetRecordingHistoryEvent",
         [](const Handles& h, const char* service) {
             unsigned t[6] = {kUntouched, kUntouched, kUntouched, kUntouched, kUntouched, kUntouched};
             char** names = nullptr;
             unsigned int** keys = nullptr;
             unsigned int** values = nullptr;
             const auto s = kavro_api_recording_data_access_get_recording_history_event_send(
                 h.dataAccess, service ? service : "recording_data_access", 10, 0, &t[0], &t[1], &t[2],
                 &t[3], &t[4], &t[5], &names, &keys, &values);
             if (s != KAVRO_STATUS_OK) {
                 for (unsigned v : t) EXPECT_EQ(v, kUntouched);
                 EXPECT_EQ(names, nullptr);
                 EXPECT_EQ(keys, nullptr);
                 EXPECT_EQ(values, nullptr);
             }
             kavro_core_free_string_array(names);
             kavro_core_free_uint_array(keys);
             kavro_core_free_uint_array(values);
             return s;
         }},
        {"GetMetadata",
         [](const Handles& h, const char* service) {
             unsigned t[6] = {kUntouched, kUntouched, kUntouched, kUntouched, kUntouched, kUntouched};
             char* document = nullptr;
             const auto s = kavro_api_recording_data_access_get_metadata_send(
                 h.dataAccess, service ? service : "recording_data_access", 10, 0, &t[0], &t[1], &t[2],
                 &t[3], &t[4], &t[5], &document);
             if (s != KAVRO_STATUS_OK) {
                 for (unsigned v : t) EXPECT_EQ(v, kUntouched);
                 EXPECT_EQ(document, nullptr);
             }
             std::free(document);
             return s;
         }},
    };
}

Recording sampleRecording()
{
    Recording r;
    r.tracks = {"CAM01", "CAM02", kMetadataTrack};
    r.events = {{{10, 0}, {{"rec", kRecordingKey, 1}, {"CAM01", kTrackKey, 1}}},
                {{20, 500}, {{"CAM02", kTrackKey, 1}}},
                {{30, 0}, {{"CAM01", kTrackKey, 0}}}};
    r.documents = {{{10, 0}, "<frame id='1'/>"}, {{15, 0}, "<frame id='2'/>"}};
    return r;
}

class InitiatorCall : public testing::TestWithParam<CallCase> {
protected:
    void TearDown() override { closeHandles(handles_); }
    Handles handles_ = openHandles();
};

TEST_P(InitiatorCall, SucceedsAgainstTheRecording)
{
    ScriptedRecordingServices services(sampleRecording());
    EXPECT_EQ(GetParam().call(handles_, nullptr), KAVRO_STATUS_OK);
    EXPECT_EQ(services.callCount(GetParam().method), 1);
}

TEST_P(InitiatorCall, ServiceStatusComesBackAsThatNumber)
{
    ScriptedRecordingServices services(sampleRecording());
    services.failMethod(GetParam().method, 77);
    EXPECT_EQ(GetParam().call(handles_, nullptr), 77);
}

TEST_P(InitiatorCall, ServiceNotOnTheBusIsAFrameworkStatus)
{
    EXPECT_EQ(GetParam().call(handles_, nullptr), KAVRO_STATUS_SERVICE_UNKNOWN);
}

TEST_P(InitiatorCall, StalledServiceTimesOutAfterTheCallTimeout)
{
    ScriptedRecordingServices services(sampleRecording());
    services.stallMethod(GetParam().method, 10s);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(GetParam().call(handles_, nullptr), KAVRO_STATUS_TIMEOUT);
    const auto took = std::chrono::steady_clock::now() - start;
    // KAVRO_CALL_TIMEOUT_MS is 1000 in the tests.
    EXPECT_GT(took, 800ms);
    EXPECT_LT(took, 4s);
}

TEST_P(InitiatorCall, RefusesBadHandlesAndServiceNames)
{
    ScriptedRecordingServices services(sampleRecording());
    EXPECT_EQ(GetParam().call(Handles{}, nullptr), KAVRO_STATUS_INVALID_ARGUMENT);
    // Each service's handle passed to the other services' calls.
    const Handles rotated{handles_.information, handles_.dataAccess, handles_.control};
    EXPECT_EQ(GetParam().call(rotated, nullptr), KAVRO_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(GetParam().call(handles_, ""), KAVRO_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(services.calls().size(), 0u);
}

TEST_P(InitiatorCall, ServiceNameChoosesTheBusName)
{
    ScriptedRecordingServices services(sampleRecording());
    EXPECT_NE(GetParam().call(handles_, "no_such_service"), KAVRO_STATUS_OK);
    EXPECT_EQ(services.calls().size(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Calls, InitiatorCall, testing::ValuesIn(allCalls()),
                         [](const auto& info) { return std::string(info.param.method); });

class Initiators : public testing::Test {
protected:
    void TearDown() override { closeHandles(handles_); }
    Handles handles_ = openHandles();
    ScriptedRecordingServices services_{sampleRecording()};
};

TEST_F(Initiators, TracksAreANullTerminatedArray)
{
    char** tracks = nullptr;
    ASSERT_EQ(kavro_api_recording_control_get_tracks_send(handles_.control, "recording_control", &tracks),
              KAVRO_STATUS_OK);
    ASSERT_NE(tracks, nullptr);
    ASSERT_EQ(length(tracks), 3u);
    EXPECT_STREQ(tracks[0], "CAM01");
    EXPECT_STREQ(tracks[2], "META001");
    kavro_core_free_string_array(tracks);

    services_.scriptGetTracks([] { return std::vector<std::string>{}; });
    tracks = nullptr;
    ASSERT_EQ(kavro_api_recording_control_get_tracks_send(handles_.control, "recording_control", &tracks),
              KAVRO_STATUS_OK);
    ASSERT_NE(tracks, nullptr);
    EXPECT_EQ(tracks[0], nullptr);
    kavro_core_free_string_array(tracks);
}

TEST_F(Initiators, InformationAnswersArriveUnchanged)
{
    unsigned s = 0, su = 0, e = 0, eu = 0;
    ASSERT_EQ(kavro_api_recording_information_get_recording_summary_send(
                  handles_.information, "recording_information", &s, &su, &e, &eu),
              KAVRO_STATUS_OK);
    EXPECT_EQ((std::vector<unsigned>{s, su, e, eu}), (std::vector<unsigned>{10, 0, 30, 0}));

    services_.scriptGetTrackSummary([](const std::string& track) -> Reply<Span> {
        if (track != "CAM02") return Reply<Span>::status(9);
        return Span{{4000000000u, 999999}, {4000000001u, 1}};
    });
    ASSERT_EQ(kavro_api_recording_information_get_track_summary_send(
                  handles_.information, "recording_information", "CAM02", &s, &su, &e, &eu),
              KAVRO_STATUS_OK);
    EXPECT_EQ((std::vector<unsigned>{s, su, e, eu}),
              (std::vector<unsigned>{4000000000u, 999999, 4000000001u, 1}));
    EXPECT_EQ(kavro_api_recording_information_get_track_summary_send(
                  handles_.information, "recording_information", "CAM01", &s, &su, &e, &eu),
              9);

    unsigned char state = 0;
    char** on = nullptr;
    ASSERT_EQ(kavro_api_recording_information_get_recording_state_send(
                  handles_.information, "recording_information", 25, 0, &state, &on),
              KAVRO_STATUS_OK);
    EXPECT_EQ(state, 1);
    ASSERT_EQ(length(on), 2u);
    EXPECT_STREQ(on[0], "CAM01");
    EXPECT_STREQ(on[1], "CAM02");
    kavro_core_free_string_array(on);
    EXPECT_EQ(services_.calls().back().args, "25.000000");
}

TEST_F(Initiators, HistoryEventArraysAreParallelAndNullTerminated)
{
    unsigned t[6] = {};
    char** names = nullptr;
    unsigned int** keys = nullptr;
    unsigned int** values = nullptr;
    ASSERT_EQ(kavro_api_recording_data_access_get_recording_history_event_send(
                  handles_.dataAccess, "recording_data_access", 20, 500, &t[0], &t[1], &t[2], &t[3],
                  &t[4], &t[5], &names, &keys, &values),
              KAVRO_STATUS_OK);
    EXPECT_EQ((std::vector<unsigned>(t, t + 6)), (std::vector<unsigned>{20, 500, 10, 0, 30, 0}));
    ASSERT_EQ(length(names), 1u);
    ASSERT_EQ(length(keys), 1u);
    ASSERT_EQ(length(values), 1u);
    EXPECT_STREQ(names[0], "CAM02");
    EXPECT_EQ(*keys[0], kTrackKey);
    EXPECT_EQ(*values[0], 1u);
    kavro_core_free_string_array(names);
    kavro_core_free_uint_array(keys);
    kavro_core_free_uint_array(values);

    unsigned sec = 0, usec = 0;
    ASSERT_EQ(kavro_api_recording_data_access_get_first_recording_history_event_time_send(
                  handles_.dataAccess, "recording_data_access", &sec, &usec),
              KAVRO_STATUS_OK);
    EXPECT_EQ(sec, 10u);
    EXPECT_EQ(usec, 0u);
}

TEST_F(Initiators, MetadataDocumentArrivesWhole)
{
    const std::string big = "<frame>" + std::string(1 << 20, 'x') + "</frame>";
    for (const std::string& text : {std::string(), std::string("<a b=\"&amp;\">ü</a>"), big}) {
        services_.scriptGetMetadata([text](StoreTime t) { return MetadataAnswer{t, {0, 0}, {0, 0}, text}; });
        unsigned v[6] = {};
        char* document = nullptr;
        ASSERT_EQ(kavro_api_recording_data_access_get_metadata_send(handles_.dataAccess,
                                                                    "recording_data_access", 12, 34,
                                                                    &v[0], &v[1], &v[2], &v[3], &v[4],
                                                                    &v[5], &document),
                  KAVRO_STATUS_OK);
        ASSERT_NE(document, nullptr);
        EXPECT_EQ(std::string(document), text);
        EXPECT_EQ(v[0], 12u);
        EXPECT_EQ(v[1], 34u);
        std::free(document);
    }
}

struct MalformedShape {
    size_t names, keys, values;
};

void PrintTo(const MalformedShape& s, std::ostream* os)
{
    *os << s.names << " names, " << s.keys << " keys, " << s.values << " values";
}

class MalformedHistoryReply : public Initiators, public testing::WithParamInterface<MalformedShape> {};

TEST_P(MalformedHistoryReply, IsAFrameworkStatusWithNothingHandedOut)
{
    const auto shape = GetParam();
    services_.scriptGetRecordingHistoryEvent([shape](StoreTime t) {
        HistoryEventAnswer a;
        a.cur = t;
        a.names.assign(shape.names, "CAM01");
        a.keys.assign(shape.keys, kTrackKey);
        a.values.assign(shape.values, 1);
        return a;
    });
    unsigned t[6] = {};
    char** names = nullptr;
    unsigned int** keys = nullptr;
    unsigned int** values = nullptr;
    EXPECT_EQ(kavro_api_recording_data_access_get_recording_history_event_send(
                  handles_.dataAccess, "recording_data_access", 20, 0, &t[0], &t[1], &t[2], &t[3],
                  &t[4], &t[5], &names, &keys, &values),
              KAVRO_STATUS_MALFORMED_REPLY);
    EXPECT_EQ(names, nullptr);
    EXPECT_EQ(keys, nullptr);
    EXPECT_EQ(values, nullptr);
}

INSTANTIATE_TEST_SUITE_P(Shapes, MalformedHistoryReply,
                         testing::Values(MalformedShape{0, 0, 0},  // an event without properties
                                         MalformedShape{2, 1, 2}, MalformedShape{1, 2, 2},
                                         MalformedShape{2, 2, 1}, MalformedShape{0, 1, 1}));

TEST_F(Initiators, NullOutputsAreRefusedWithoutACall)
{
    unsigned u = 0;
    unsigned char c = 0;
    char** strings = nullptr;
    unsigned int** numbers = nullptr;
    char* text = nullptr;
    void* const ctl = handles_.control;
    void* const inf = handles_.information;
    void* const da = handles_.dataAccess;
    const char* const I = "recording_information";
    const char* const D = "recording_data_access";
    const std::vector<std::pair<const char*, std::function<kavro_core_status()>>> cases = {
        {"tracks", [&] { return kavro_api_recording_control_get_tracks_send(ctl, "recording_control", nullptr); }},
        {"summary last", [&] { return kavro_api_recording_information_get_recording_summary_send(inf, I, &u, &u, &u, nullptr); }},
        {"summary first", [&] { return kavro_api_recording_information_get_recording_summary_send(inf, I, nullptr, &u, &u, &u); }},
        {"state", [&] { return kavro_api_recording_information_get_recording_state_send(inf, I, 1, 0, nullptr, &strings); }},
        {"tracksOn", [&] { return kavro_api_recording_information_get_recording_state_send(inf, I, 1, 0, &c, nullptr); }},
        {"track name", [&] { return kavro_api_recording_information_get_track_summary_send(inf, I, nullptr, &u, &u, &u, &u); }},
        {"track summary last", [&] { return kavro_api_recording_information_get_track_summary_send(inf, I, "META001", &u, &u, &u, nullptr); }},
        {"first time", [&] { return kavro_api_recording_data_access_get_first_recording_history_event_time_send(da, D, &u, nullptr); }},
        {"event cur", [&] { return kavro_api_recording_data_access_get_recording_history_event_send(da, D, 1, 0, nullptr, &u, &u, &u, &u, &u, &strings, &numbers, &numbers); }},
        {"event values", [&] { return kavro_api_recording_data_access_get_recording_history_event_send(da, D, 1, 0, &u, &u, &u, &u, &u, &u, &strings, &numbers, nullptr); }},
        {"metadata next", [&] { return kavro_api_recording_data_access_get_metadata_send(da, D, 1, 0, &u, &u, &u, &u, &u, nullptr, &text); }},
        {"metadata document", [&] { return kavro_api_recording_data_access_get_metadata_send(da, D, 1, 0, &u, &u, &u, &u, &u, &u, nullptr); }},
    };
    for (const auto& [what, call] : cases) {
        EXPECT_EQ(call(), KAVRO_STATUS_INVALID_ARGUMENT) << what;
    }
    EXPECT_EQ(services_.calls().size(), 0u);
}

TEST_F(Initiators, HandlesOnSeveralThreadsAtOnce)
{
    constexpr int kThreads = 6;
    constexpr int kCalls = 100;
    std::vector<std::future<int>> workers;
    for (int i = 0; i < kThreads; ++i) {
        workers.push_back(std::async(std::launch::async, [] {
            Handles h = openHandles();
            int good = 0;
            for (int n = 0; n < kCalls; ++n) {
                unsigned t[6] = {};
                char* document = nullptr;
                const auto s = kavro_api_recording_data_access_get_metadata_send(
                    h.dataAccess, "recording_data_access", 15, unsigned(n), &t[0], &t[1], &t[2], &t[3],
                    &t[4], &t[5], &document);
                if (s == KAVRO_STATUS_OK && t[0] == 15 && std::string(document) == "<frame id='2'/>") ++good;
                std::free(document);
            }
            closeHandles(h);
            return good;
        }));
    }
    for (auto& w : workers) EXPECT_EQ(w.get(), kCalls);
}

TEST(InitiatorSetUp, RefusesNullAndForeignHandles)
{
    EXPECT_EQ(kavro_api_recording_control_initiator_init(nullptr, nullptr, nullptr, nullptr, nullptr),
              KAVRO_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(kavro_api_recording_data_access_initiator_deinit(nullptr), KAVRO_STATUS_INVALID_ARGUMENT);
    Handles h = openHandles();
    EXPECT_EQ(kavro_api_recording_information_initiator_deinit(h.control), KAVRO_STATUS_INVALID_ARGUMENT);
    closeHandles(h);
}

TEST(InitiatorSetUp, NoBusIsAFrameworkStatus)
{
    ScopedBusAddress nowhere("unix:path=/nonexistent/rs-test-bus");
    void* handle = reinterpret_cast<void*>(0x1);
    EXPECT_EQ(kavro_api_recording_data_access_initiator_init(nullptr, nullptr, &handle, nullptr, nullptr),
              KAVRO_STATUS_BUS_UNREACHABLE);
    EXPECT_EQ(handle, nullptr);
}

TEST(InitiatorBusLoss, CallInProgressWhenTheBusDiesReturnsAStatus)
{
    PrivateBus bus;
    Handles h;
    {
        ScopedBusAddress here(bus.address());
        h = openHandles();
    }
    auto services = std::make_unique<ScriptedRecordingServices>(
        sampleRecording(), std::vector<RecordingService>{RecordingService::DataAccess}, bus.address());
    services->stallMethod("GetMetadata", 10s);
    auto call = std::async(std::launch::async, [&h] {
        unsigned t[6] = {};
        char* document = nullptr;
        const auto s = kavro_api_recording_data_access_get_metadata_send(
            h.dataAccess, "recording_data_access", 1, 0, &t[0], &t[1], &t[2], &t[3], &t[4], &t[5], &document);
        std::free(document);
        return s;
    });
    ASSERT_TRUE(services->waitForCalls("GetMetadata", 1, 5s));
    bus.kill();
    ASSERT_EQ(call.wait_for(5s), std::future_status::ready);
    EXPECT_NE(call.get(), KAVRO_STATUS_OK);
    services.reset();

    unsigned sec = 0, usec = 0;
    EXPECT_NE(kavro_api_recording_data_access_get_first_recording_history_event_time_send(
                  h.dataAccess, "recording_data_access", &sec, &usec),
              KAVRO_STATUS_OK);
    closeHandles(h);
}

}  // namespace
}  // namespace rstest
