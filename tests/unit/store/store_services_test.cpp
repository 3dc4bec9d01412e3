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

std::vector<std::string> takeStrings(char** array)
{
    std::vector<std::string> out;
    for (char** p = array; p && *p; ++p) out.emplace_back(*p);
    kavro_core_free_string_array(array);
    return out;
}

std::vector<unsigned> takeNumbers(unsigned int** array)
{
    std::vector<unsigned> out;
    for (unsigned int** p = array; p && *p; ++p) out.push_back(**p);
    kavro_core_free_uint_array(array);
    return out;
}

// Serves one recording file on a private bus for the life of the object.
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
    }
    ~ServedRecording() { loop_.stop(); }

private:
    rstest::PrivateBus bus_;
    rstest::ScopedBusAddress address_;
    store::Recording recording_;
    kavro::bus::BusLoop loop_;
    store::RecordingStoreServices services_;
};

class StoreServices : public testing::Test {
protected:
    void SetUp() override
    {
        {
            RecordingWriter writer(dir_.file("r.db"), RecordingWriter::Durability::Safe);
            writer.addEvent(at(100), {recordingSwitch(true), trackSwitch("VIDEO001", true)});
            writer.addEvent(at(200, 5), {trackSwitch("VIDEO001", false)});
            writer.addDocument(at(150), "<a n='1'/>");
            writer.addDocument(at(160), "<a n='2'/>");
        }
        {
            RecordingWriter writer(dir_.file("empty.db"), RecordingWriter::Durability::Safe);
            writer.addTrack("VIDEO001");
        }
    }

    void* open(kavro_core_status (*init)(void*, void*, void**, void*, void*))
    {
        void* handle = nullptr;
        EXPECT_EQ(init(nullptr, nullptr, &handle, nullptr, nullptr), KAVRO_STATUS_OK);
        return handle;
    }

    TempDir dir_;
};

TEST_F(StoreServices, AnswersEachMethodThroughTheInitiators)
{
    ServedRecording served(dir_.file("r.db"));
    void* control = open(kavro_api_recording_control_initiator_init);
    void* information = open(kavro_api_recording_information_initiator_init);
    void* data = open(kavro_api_recording_data_access_initiator_init);

    char** tracks = nullptr;
    ASSERT_EQ(kavro_api_recording_control_get_tracks_send(control, "recording_control", &tracks),
              0);
    EXPECT_THAT(takeStrings(tracks), ElementsAre("VIDEO001"));

    unsigned s1 = 9, u1 = 9, s2 = 9, u2 = 9;
    ASSERT_EQ(kavro_api_recording_information_get_recording_summary_send(
                  information, "recording_information", &s1, &u1, &s2, &u2),
              0);
    EXPECT_EQ(std::vector<unsigned>({s1, u1, s2, u2}), std::vector<unsigned>({100, 0, 200, 5}));
    ASSERT_EQ(kavro_api_recording_information_get_track_summary_send(
                  information, "recording_information", "META001", &s1, &u1, &s2, &u2),
              0);
    EXPECT_EQ(std::vector<unsigned>({s1, u1, s2, u2}), std::vector<unsigned>({150, 0, 160, 0}));

    unsigned char state = 9;
    char** on = nullptr;
    ASSERT_EQ(kavro_api_recording_information_get_recording_state_send(
                  information, "recording_information", 150, 0, &state, &on),
              0);
    EXPECT_EQ(state, 1);
    EXPECT_THAT(takeStrings(on), ElementsAre("VIDEO001"));

    ASSERT_EQ(kavro_api_recording_data_access_get_first_recording_history_event_time_send(
                  data, "recording_data_access", &s1, &u1),
              0);
    EXPECT_EQ(std::make_pair(s1, u1), std::make_pair(100u, 0u));

    unsigned cs, cu, ps, pu, ns, nu;
    char** names = nullptr;
    unsigned** keys = nullptr;
    unsigned** values = nullptr;
    ASSERT_EQ(kavro_api_recording_data_access_get_recording_history_event_send(
                  data, "recording_data_access", 99, 0, &cs, &cu, &ps, &pu, &ns, &nu, &names, &keys,
                  &values),
              0);
    EXPECT_EQ(std::vector<unsigned>({cs, cu, ps, pu, ns, nu}),
              std::vector<unsigned>({100, 0, 0, 0, 200, 5}));
    EXPECT_THAT(takeStrings(names), ElementsAre("", "VIDEO001"));
    EXPECT_THAT(takeNumbers(keys), ElementsAre(0u, 1u));
    EXPECT_THAT(takeNumbers(values), ElementsAre(1u, 1u));

    char* document = nullptr;
    ASSERT_EQ(kavro_api_recording_data_access_get_metadata_send(
                  data, "recording_data_access", 155, 0, &cs, &cu, &ps, &pu, &ns, &nu, &document),
              0);
    EXPECT_EQ(std::vector<unsigned>({cs, cu, ps, pu, ns, nu}),
              std::vector<unsigned>({150, 0, 0, 0, 160, 0}));
    ASSERT_NE(document, nullptr);
    EXPECT_STREQ(document, "<a n='1'/>");
    std::free(document);

    EXPECT_EQ(kavro_api_recording_information_get_track_summary_send(
                  information, "recording_information", "NOPE", &s1, &u1, &s2, &u2),
              store::kStatusUnknownTrack);

    kavro_api_recording_data_access_initiator_deinit(data);
    kavro_api_recording_information_initiator_deinit(information);
    kavro_api_recording_control_initiator_deinit(control);
}

TEST_F(StoreServices, AnEmptyRecordingAnswersWithTheNoDataStatus)
{
    ServedRecording served(dir_.file("empty.db"));
    void* information = open(kavro_api_recording_information_initiator_init);
    void* data = open(kavro_api_recording_data_access_initiator_init);
    unsigned s1 = 7, u1 = 7, s2 = 7, u2 = 7, ps, pu, ns, nu;
    EXPECT_EQ(kavro_api_recording_information_get_recording_summary_send(
                  information, "recording_information", &s1, &u1, &s2, &u2),
              store::kStatusNoData);
    EXPECT_EQ(kavro_api_recording_information_get_track_summary_send(
                  information, "recording_information", "VIDEO001", &s1, &u1, &s2, &u2),
              store::kStatusNoData);
    EXPECT_EQ(kavro_api_recording_data_access_get_first_recording_history_event_time_send(
                  data, "recording_data_access", &s1, &u1),
              store::kStatusNoData);
    char* document = nullptr;
    EXPECT_EQ(kavro_api_recording_data_access_get_metadata_send(
                  data, "recording_data_access", 1, 0, &s1, &u1, &ps, &pu, &ns, &nu, &document),
              store::kStatusNoData);
    EXPECT_EQ(document, nullptr);
    char** names = nullptr;
    unsigned** keys = nullptr;
    unsigned** values = nullptr;
    EXPECT_EQ(kavro_api_recording_data_access_get_recording_history_event_send(
                  data, "recording_data_access", 1, 0, &s1, &u1, &ps, &pu, &ns, &nu, &names, &keys,
                  &values),
              store::kStatusNoData);
    EXPECT_EQ(std::vector<unsigned>({s1, u1, s2, u2}), std::vector<unsigned>({7, 7, 7, 7}))
        << "a failed call writes no outputs";
    kavro_api_recording_data_access_initiator_deinit(data);
    kavro_api_recording_information_initiator_deinit(information);
}

}  // namespace
