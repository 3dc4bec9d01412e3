// Makes a sample recording: the recording and its tracks switching on and off at random
// (exponentially distributed on and off periods), and while the recording and META001 are
// on, analytics frames at a steady rate describing a scene in which objects come, move and
// go. The same options (seed included) always give the same recording.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "store/StoreTime.h"

namespace store {

class RecordingWriter;

struct SampleOptions {
    uint64_t seed = 1;
    StoreTime start{1704067200, 0};  // 2024-01-01T00:00:00Z
    double durationSeconds = 3600;
    unsigned videoTracks = 1;
    unsigned audioTracks = 1;
    double documentsPerSecond = 5;
    // Mean lengths of on and off periods, in seconds.
    double recordingOnSeconds = 1800;
    double recordingOffSeconds = 120;
    double trackOnSeconds = 900;
    double trackOffSeconds = 60;
    // The scene: how often an object appears, and how long it stays on average.
    double objectsPerMinute = 5;
    double objectSeconds = 12;
    // Relative weights of the object classes ("Person", "Vehicle", "Bicycle", "Animal").
    std::map<std::string, double> classMix{
        {"Person", 40}, {"Vehicle", 30}, {"Bicycle", 10}, {"Animal", 20}};

    // Empty when usable, else why not (one line).
    std::string validate() const;
};

struct SampleSummary {
    uint64_t events = 0;
    uint64_t documents = 0;
    uint64_t documentBytes = 0;
    std::vector<std::string> tracks;
    StoreTime first;
    StoreTime last;
};

class SampleGenerator {
public:
    explicit SampleGenerator(SampleOptions options);

    // Writes into an empty recording, inside one transaction. progress gets the fraction of
    // the duration done, now and then.
    SampleSummary generate(RecordingWriter& writer,
                           const std::function<void(double)>& progress = {});

    static const std::vector<std::string>& knownClasses();

private:
    SampleOptions options_;
};

}  // namespace store
