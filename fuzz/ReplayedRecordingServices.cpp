#include "ReplayedRecordingServices.h"

#include <climits>

unsigned int ReplayedRecordingServices::seconds(FuzzInput& input)
{
    const uint8_t b = input.byte();
    switch (b % 8) {
    case 0: return 0;
    case 1: return UINT_MAX;
    case 2: return input.u32();
    default: return kBase + (b >> 3);
    }
}

unsigned int ReplayedRecordingServices::microseconds(FuzzInput& input)
{
    const uint8_t b = input.byte();
    switch (b % 8) {
    case 0: return 0;
    case 1: return 999999;
    case 2: return 1000000 + input.byte();
    case 3: return UINT_MAX;
    default: return (b >> 3) * 31250u;
    }
}

// A failed call writes no output, as the framework promises.
bool ReplayedRecordingServices::succeeds()
{
    if (in_.exhausted() || replies_ >= kMaxReplies) return false;
    ++replies_;
    return in_.byte() % 16 != 0;
}

std::vector<std::string> ReplayedRecordingServices::nameList(unsigned count)
{
    std::vector<std::string> list;
    for (unsigned i = 0; i < count; ++i) list.push_back(*names_.insert(in_.text(12)).first);
    return list;
}

std::vector<uint32_t> ReplayedRecordingServices::numberList(unsigned count, bool keys)
{
    std::vector<uint32_t> list;
    for (unsigned i = 0; i < count; ++i) {
        const uint8_t b = in_.byte();
        list.push_back(b < 250 ? (keys ? b % 3 : b % 2) : in_.u32());
    }
    return list;
}

std::string ReplayedRecordingServices::document()
{
    const uint8_t mode = in_.byte();
    std::string text = in_.text(mode % 4 == 3 ? 4096 : 256);
    switch (mode % 4) {
    case 0:
        return "<MetadataStream><VideoAnalytics><Frame><Object><Class><Type>" + text +
               "</Type></Class></Object></Frame></VideoAnalytics></MetadataStream>";
    case 1: return "<Frame ObjectCount='" + text + "'/>";
    default: return text;
    }
}

kavro_core_status ReplayedRecordingServices::tracks(std::vector<std::string>& names)
{
    if (!succeeds()) return KAVRO_STATUS_FAILED;
    names = nameList(in_.byte() % 5);
    return KAVRO_STATUS_OK;
}

kavro_core_status ReplayedRecordingServices::summary(SearchTime& start, SearchTime& end)
{
    if (!succeeds()) return KAVRO_STATUS_FAILED;
    start = time();
    end = time();
    return KAVRO_STATUS_OK;
}

kavro_core_status ReplayedRecordingServices::trackSummary(const std::string&, SearchTime& start,
                                                          SearchTime& end)
{
    return summary(start, end);
}

kavro_core_status ReplayedRecordingServices::state(SearchTime, unsigned char& state,
                                                   std::vector<std::string>& on)
{
    if (!succeeds()) return KAVRO_STATUS_FAILED;
    state = in_.byte();
    on = nameList(in_.byte() % 5);
    return KAVRO_STATUS_OK;
}

kavro_core_status ReplayedRecordingServices::firstEvent(SearchTime& at)
{
    if (!succeeds()) return KAVRO_STATUS_FAILED;
    at = time();
    return KAVRO_STATUS_OK;
}

kavro_core_status ReplayedRecordingServices::historyEvent(SearchTime, fake::HistoryAnswer& a)
{
    if (!succeeds()) return KAVRO_STATUS_FAILED;
    a.times = {time(), time(), time()};
    // Low bits: the three lengths; high bits: arrays left out altogether.
    const uint8_t shape = in_.byte();
    const uint8_t missing = in_.byte();
    const unsigned count = 1 + shape % 4;
    const bool ragged = (shape & 0x80) != 0;
    if (!(missing & 1)) a.names = nameList(ragged ? (shape >> 2) % 4 : count);
    if (!(missing & 2)) a.keys = numberList(ragged ? (shape >> 4) % 4 : count, true);
    if (!(missing & 4)) a.values = numberList(count, false);
    return KAVRO_STATUS_OK;
}

kavro_core_status ReplayedRecordingServices::metadata(SearchTime, fake::MetadataAnswer& a)
{
    if (!succeeds()) return KAVRO_STATUS_FAILED;
    a.times = {time(), time(), time()};
    // A successful reply without any text is one way a reply can be malformed.
    if (in_.byte() != 0xff) a.document = document();
    return KAVRO_STATUS_OK;
}
