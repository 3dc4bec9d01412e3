// The three recording services answering from fuzzer input: every reply a walk asks for
// (times, track lists, history events, documents, failure statuses) is read from the bytes.
// Installed into the shared link-time fake of the recording services.
#pragma once

#include <set>
#include <string>

#include "FuzzInput.h"
#include "fake/RecordingServicesFake.h"

class ReplayedRecordingServices : public fake::RecordingServices {
public:
    // After kMaxReplies replies, or when the input runs out, every call fails, which ends any walk.
    static constexpr int kMaxReplies = 48;
    // Times as the fuzzer chooses them: mostly a few seconds around kBase, so that walks stay in
    // their ranges, and the edges (0.0, the largest values, microseconds above 999999) mixed in.
    static constexpr unsigned int kBase = 1000;
    static unsigned int seconds(FuzzInput& input);
    static unsigned int microseconds(FuzzInput& input);

    explicit ReplayedRecordingServices(FuzzInput& input) : in_(input) {}

    // Every track name that a reply carried, so results can be checked against them.
    const std::set<std::string>& namesGiven() const { return names_; }

    kavro_core_status tracks(std::vector<std::string>& names) override;
    kavro_core_status summary(SearchTime& start, SearchTime& end) override;
    kavro_core_status trackSummary(const std::string&, SearchTime& start, SearchTime& end) override;
    kavro_core_status state(SearchTime, unsigned char& state,
                            std::vector<std::string>& on) override;
    kavro_core_status firstEvent(SearchTime& at) override;
    kavro_core_status historyEvent(SearchTime, fake::HistoryAnswer& answer) override;
    kavro_core_status metadata(SearchTime, fake::MetadataAnswer& answer) override;

private:
    bool succeeds();
    SearchTime time() { return {seconds(in_), microseconds(in_)}; }
    std::vector<std::string> nameList(unsigned count);
    std::vector<uint32_t> numberList(unsigned count, bool keys);
    std::string document();

    FuzzInput& in_;
    int replies_ = 0;
    std::set<std::string> names_;
};
