// The three services on a bus of their own, called through the framework's initiators the
// way the search calls them.
#include <cstdlib>
#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kavro/bus/BusLoop.h"
#include "kavro/bus/Contract.h"
#include "kavro/recording_initiators.h"
#include "store/Recording.h"
#include "store/RecordingStoreServices.h"
#include "store/RecordingWriter.h"
#include "support/PrivateBus.h"
#include "unit/store/StoreTestFiles.h"

namespace {

using namespace storetest;
using store::RecordingWriter;
using testing::ElementsAre;
using Numbers = std::vector<unsigned>;

std::vector<std::string> takeStrings(char** array)
{
    std::vector<std::string> out;
    for (char** p = array; p && *p; ++p) out.emplace_back(*p);
    kavro_core_free_string_array(array);
    return out;
}

Numbers takeNumbers(unsigned int** array)
{
    Numbers out;
    for (unsigned int** p = array; p && *p; ++p) out.push_back(**p);
    kavro_core_free_uint_array(array);
    return out;
}

// Serves one recording file on a private bus, with the three initiators open on it, for the
// life of the object.
class ServedRecording {
public:
    explicit ServedRecording(const std::string& path)
        : address_(bus_.address()),
          recording_(path),
          loop_(kavro::bus::connectToBus()),
          services_(loop_.connection(), recording_, nullptr)
    {
        for (const char* service : store::RecordingStoreServices::kServiceNames) {
            loop_.connection().requestName(kavro::bus::busName(service));
        }
        loop_.start();
        kavro_api_recording_control_initiator_init(nullptr, nullptr, &control, nullptr, nullptr);
        kavro_api_recording_information_initiator_init(nullptr, nullptr, &info, nullptr, nullptr);
        kavro_api_recording_data_access_initiator_init(nullptr, nullptr, &data, nullptr, nullptr);
    }
    ~ServedRecording()
    {
        kavro_api_recording_data_access_initiator_deinit(data);
        kavro_api_recording_information_initiator_deinit(info);
        kavro_api_recording_control_initiator_deinit(control);
        loop_.stop();
    }

    void *control = nullptr, *info = nullptr, *data = nullptr;

private:
    rstest::PrivateBus bus_;
    rstest::ScopedBusAddress address_;
    store::Recording recording_;
    kavro::bus::BusLoop loop_;
    store::RecordingStoreServices services_;
};

const char* const kControl = "recording_control";
const char* const kInformation = "recording_information";
const char* const kData = "recording_data_access";

TEST(StoreServices, AnswerEachMethodThroughTheInitiators)
{
    TempDir dir;
    {
        RecordingWriter writer(dir.file("r.db"), RecordingWriter::Durability::Safe);
        writer.addEvent(at(100), {recordingSwitch(true), trackSwitch("VIDEO001", true)});
        writer.addEvent(at(200, 5), {trackSwitch("VIDEO001", false)});
        writer.addDocument(at(150), "<a n='1'/>");
        writer.addDocument(at(160), "<a n='2'/>");
    }
    ServedRecording served(dir.file("r.db"));
    char** strings = nullptr;
    ASSERT_EQ(kavro_api_recording_control_get_tracks_send(served.control, kControl, &strings), 0);
    EXPECT_THAT(takeStrings(strings), ElementsAre("VIDEO001"));

    unsigned s1 = 9, u1 = 9, s2 = 9, u2 = 9;
    ASSERT_EQ(kavro_api_recording_information_get_recording_summary_send(served.info, kInformation,
                                                                         &s1, &u1, &s2, &u2),
              0);
    EXPECT_EQ(Numbers({s1, u1, s2, u2}), Numbers({100, 0, 200, 5}));
    ASSERT_EQ(kavro_api_recording_information_get_track_summary_send(served.info, kInformation,
                                                                     "META001", &s1, &u1, &s2, &u2),
              0);
    EXPECT_EQ(Numbers({s1, u1, s2, u2}), Numbers({150, 0, 160, 0}));
    EXPECT_EQ(kavro_api_recording_information_get_track_summary_send(served.info, kInformation,
                                                                     "NOPE", &s1, &u1, &s2, &u2),
              store::kStatusUnknownTrack);

    unsigned char state = 9;
    ASSERT_EQ(kavro_api_recording_information_get_recording_state_send(served.info, kInformation,
                                                                       150, 0, &state, &strings),
              0);
    EXPECT_EQ(state, 1);
    EXPECT_THAT(takeStrings(strings), ElementsAre("VIDEO001"));

    ASSERT_EQ(kavro_api_recording_data_access_get_first_recording_history_event_time_send(
                  served.data, kData, &s1, &u1),
              0);
    EXPECT_EQ(Numbers({s1, u1}), Numbers({100, 0}));

    unsigned cs, cu, ps, pu, ns, nu;
    unsigned** keys = nullptr;
    unsigned** values = nullptr;
    ASSERT_EQ(
        kavro_api_recording_data_access_get_recording_history_event_send(
            served.data, kData, 99, 0, &cs, &cu, &ps, &pu, &ns, &nu, &strings, &keys, &values),
        0);
    EXPECT_EQ(Numbers({cs, cu, ps, pu, ns, nu}), Numbers({100, 0, 0, 0, 200, 5}));
    EXPECT_THAT(takeStrings(strings), ElementsAre("", "VIDEO001"));
    EXPECT_EQ(takeNumbers(keys), Numbers({0, 1}));
    EXPECT_EQ(takeNumbers(values), Numbers({1, 1}));

    char* document = nullptr;
    ASSERT_EQ(kavro_api_recording_data_access_get_metadata_send(served.data, kData, 155, 0, &cs,
                                                                &cu, &ps, &pu, &ns, &nu, &document),
              0);
    EXPECT_EQ(Numbers({cs, cu, ps, pu, ns, nu}), Numbers({150, 0, 0, 0, 160, 0}));
    EXPECT_STREQ(document, "<a n='1'/>");
    std::free(document);
}

TEST(StoreServices, AnEmptyRecordingAnswersWithTheNoDataStatusAndWritesNothing)
{
    TempDir dir;
    {
        RecordingWriter writer(dir.file("empty.db"), RecordingWriter::Durability::Safe);
        writer.addTrack("VIDEO001");
    }
    ServedRecording served(dir.file("empty.db"));
    unsigned s1 = 7, u1 = 7, s2 = 7, u2 = 7;
    EXPECT_EQ(kavro_api_recording_information_get_recording_summary_send(served.info, kInformation,
                                                                         &s1, &u1, &s2, &u2),
              store::kStatusNoData);
    EXPECT_EQ(kavro_api_recording_information_get_track_summary_send(
                  served.info, kInformation, "VIDEO001", &s1, &u1, &s2, &u2),
              store::kStatusNoData);
    EXPECT_EQ(kavro_api_recording_data_access_get_first_recording_history_event_time_send(
                  served.data, kData, &s1, &u1),
              store::kStatusNoData);
    char* document = nullptr;
    EXPECT_EQ(kavro_api_recording_data_access_get_metadata_send(served.data, kData, 1, 0, &s1, &u1,
                                                                &s2, &u2, &s2, &u2, &document),
              store::kStatusNoData);
    EXPECT_EQ(document, nullptr);
    EXPECT_EQ(Numbers({s1, u1, s2, u2}), Numbers({7, 7, 7, 7}))
        << "a failed call writes no outputs";
}

}  // namespace
