#include "ReplayedRecordingServices.h"

#include <climits>
#include <vector>

#include "kavro/recording_initiators.h"
#include "kavro/src/Arrays.h"

namespace replay {
namespace {

FuzzInput* source = nullptr;
int replies = 0;
std::set<std::string> names;
int handleToken;  // any non-null handle will do; the calls never look inside

// Decides whether the next call succeeds. A failed call writes no output, as the framework
// promises.
bool succeeds()
{
    if (source == nullptr || source->exhausted() || replies >= kMaxReplies) return false;
    ++replies;
    return source->byte() % 16 != 0;
}

std::string name()
{
    std::string n = source->text(12);
    names.insert(n);
    return n;
}

// Array lengths and absences chosen separately, so replies can be malformed in every way.
std::vector<std::string> nameList(unsigned count)
{
    std::vector<std::string> list;
    for (unsigned i = 0; i < count; ++i) list.push_back(name());
    return list;
}

std::vector<uint32_t> numberList(unsigned count, bool keys)
{
    std::vector<uint32_t> list;
    for (unsigned i = 0; i < count; ++i) {
        const uint8_t b = source->byte();
        list.push_back(b < 250 ? (keys ? b % 3 : b % 2) : source->u32());
    }
    return list;
}

std::string document()
{
    const uint8_t mode = source->byte();
    std::string text = source->text(mode % 4 == 3 ? 4096 : 256);
    switch (mode % 4) {
    case 0: return "<MetadataStream><VideoAnalytics><Frame><Object><Class><Type>" + text +
                   "</Type></Class></Object></Frame></VideoAnalytics></MetadataStream>";
    case 1: return "<Frame ObjectCount='" + text + "'/>";
    default: return text;
    }
}

void times(unsigned int* s1, unsigned int* u1, unsigned int* s2, unsigned int* u2)
{
    *s1 = seconds(*source);
    *u1 = microseconds(*source);
    *s2 = seconds(*source);
    *u2 = microseconds(*source);
}

}  // namespace

void begin(FuzzInput& input)
{
    source = &input;
    replies = 0;
    names.clear();
}

void end() { source = nullptr; }

unsigned int seconds(FuzzInput& input)
{
    const uint8_t b = input.byte();
    switch (b % 8) {
    case 0: return KAVRO_STATUS_OK;
    case 1: return UINT_MAX;
    case 2: return input.u32();
    default: return kBase + (b >> 3);
    }
}

unsigned int microseconds(FuzzInput& input)
{
    const uint8_t b = input.byte();
    switch (b % 8) {
    case 0: return KAVRO_STATUS_OK;
    case 1: return 999999;
    case 2: return 1000000 + input.byte();
    case 3: return UINT_MAX;
    default: return (b >> 3) * 31250u;
    }
}

const std::set<std::string>& namesGiven() { return names; }

}  // namespace replay

using replay::succeeds;

extern "C" {

kavro_core_status kavro_api_recording_control_initiator_init(void*, void*, void** handle, void*,
                                                             void*)
{
    *handle = &replay::handleToken;
    return KAVRO_STATUS_OK;
}
kavro_core_status kavro_api_recording_control_initiator_deinit(void*) { return KAVRO_STATUS_OK; }

kavro_core_status kavro_api_recording_control_get_tracks_send(void*, const char*, char*** tracks)
{
    if (!succeeds()) return KAVRO_STATUS_FAILED;
    *tracks = kavro::detail::toStringArray(replay::nameList(replay::source->byte() % 5));
    return KAVRO_STATUS_OK;
}

kavro_core_status kavro_api_recording_information_initiator_init(void*, void*, void** handle,
                                                                 void*, void*)
{
    *handle = &replay::handleToken;
    return KAVRO_STATUS_OK;
}
kavro_core_status kavro_api_recording_information_initiator_deinit(void*) { return KAVRO_STATUS_OK; }

kavro_core_status kavro_api_recording_information_get_recording_summary_send(
    void*, const char*, unsigned int* startSec, unsigned int* startUsec, unsigned int* endSec,
    unsigned int* endUsec)
{
    if (!succeeds()) return KAVRO_STATUS_FAILED;
    replay::times(startSec, startUsec, endSec, endUsec);
    return KAVRO_STATUS_OK;
}

kavro_core_status kavro_api_recording_information_get_recording_state_send(
    void*, const char*, unsigned int, unsigned int, unsigned char* state, char*** tracksOn)
{
    if (!succeeds()) return KAVRO_STATUS_FAILED;
    *state = replay::source->byte();
    *tracksOn = kavro::detail::toStringArray(replay::nameList(replay::source->byte() % 5));
    return KAVRO_STATUS_OK;
}

kavro_core_status kavro_api_recording_information_get_track_summary_send(
    void*, const char*, const char*, unsigned int* startSec, unsigned int* startUsec,
    unsigned int* endSec, unsigned int* endUsec)
{
    if (!succeeds()) return KAVRO_STATUS_FAILED;
    replay::times(startSec, startUsec, endSec, endUsec);
    return KAVRO_STATUS_OK;
}

kavro_core_status kavro_api_recording_data_access_initiator_init(void*, void*, void** handle,
                                                                 void*, void*)
{
    *handle = &replay::handleToken;
    return KAVRO_STATUS_OK;
}
kavro_core_status kavro_api_recording_data_access_initiator_deinit(void*) { return KAVRO_STATUS_OK; }

kavro_core_status kavro_api_recording_data_access_get_first_recording_history_event_time_send(
    void*, const char*, unsigned int* sec, unsigned int* usec)
{
    if (!succeeds()) return KAVRO_STATUS_FAILED;
    *sec = replay::seconds(*replay::source);
    *usec = replay::microseconds(*replay::source);
    return KAVRO_STATUS_OK;
}

kavro_core_status kavro_api_recording_data_access_get_recording_history_event_send(
    void*, const char*, unsigned int, unsigned int, unsigned int* curSec, unsigned int* curUsec,
    unsigned int* prevSec, unsigned int* prevUsec, unsigned int* nextSec, unsigned int* nextUsec,
    char*** names, unsigned int*** keys, unsigned int*** values)
{
    if (!succeeds()) return KAVRO_STATUS_FAILED;
    *curSec = replay::seconds(*replay::source);
    *curUsec = replay::microseconds(*replay::source);
    replay::times(prevSec, prevUsec, nextSec, nextUsec);
    // Low bits: the three lengths; high bits: arrays left out altogether.
    const uint8_t shape = replay::source->byte();
    const uint8_t missing = replay::source->byte();
    const unsigned count = 1 + shape % 4;
    const bool ragged = (shape & 0x80) != 0;
    const unsigned nameCount = ragged ? (shape >> 2) % 4 : count;
    const unsigned keyCount = ragged ? (shape >> 4) % 4 : count;
    *names = missing & 1 ? nullptr : kavro::detail::toStringArray(replay::nameList(nameCount));
    *keys = missing & 2 ? nullptr : kavro::detail::toUintArray(replay::numberList(keyCount, true));
    *values = missing & 4 ? nullptr : kavro::detail::toUintArray(replay::numberList(count, false));
    return KAVRO_STATUS_OK;
}

kavro_core_status kavro_api_recording_data_access_get_metadata_send(
    void*, const char*, unsigned int, unsigned int, unsigned int* curSec, unsigned int* curUsec,
    unsigned int* prevSec, unsigned int* prevUsec, unsigned int* nextSec, unsigned int* nextUsec,
    char** document)
{
    if (!succeeds()) return KAVRO_STATUS_FAILED;
    *curSec = replay::seconds(*replay::source);
    *curUsec = replay::microseconds(*replay::source);
    replay::times(prevSec, prevUsec, nextSec, nextUsec);
    // A successful reply without any text is one way a reply can be malformed.
    *document = replay::source->byte() == 0xff ? nullptr
                                               : kavro::detail::toText(replay::document());
    return KAVRO_STATUS_OK;
}

}  // extern "C"
