// Sample recordings: reproducible from the seed, within the bounds asked for, and coherent with
// their own history.
#include <fstream>
#include <iterator>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "store/Recording.h"
#include "store/RecordingWriter.h"
#include "store/SampleGenerator.h"
#include "store/StoreError.h"
#include "support/PlainXPath.h"
#include "unit/store/StoreTestFiles.h"

namespace {

using namespace storetest;
using store::Recording;
using store::RecordingWriter;
using store::SampleGenerator;
using store::SampleOptions;
using store::StoreTime;

store::SampleSummary generate(const std::string& path, const SampleOptions& options)
{
    RecordingWriter writer(path, RecordingWriter::Durability::Bulk);
    return SampleGenerator(options).generate(writer);
}

std::string contents(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

SampleOptions tenMinutes(uint64_t seed)
{
    SampleOptions options;
    options.seed = seed;
    options.durationSeconds = 600;
    options.recordingOnSeconds = 200;
    options.recordingOffSeconds = 30;
    options.trackOnSeconds = 150;
    options.trackOffSeconds = 30;
    return options;
}

TEST(SampleGenerator, SameSeedGivesTheSameRecordingAndAnotherSeedAnother)
{
    TempDir dir;
    generate(dir.file("a.db"), tenMinutes(7));
    generate(dir.file("b.db"), tenMinutes(7));
    generate(dir.file("c.db"), tenMinutes(8));
    const std::string a = contents(dir.file("a.db"));
    EXPECT_GT(a.size(), 100000u);
    EXPECT_TRUE(a == contents(dir.file("b.db")));
    EXPECT_FALSE(a == contents(dir.file("c.db")));
}

TEST(SampleGenerator, StaysWithinTheAskedBoundsAndRecordsDocumentsOnlyWhileMetadataIsOn)
{
    TempDir dir;
    SampleOptions options = tenMinutes(3);
    options.start = at(1800000000, 250000);
    options.videoTracks = 2;
    options.audioTracks = 0;
    const store::SampleSummary summary = generate(dir.file("r.db"), options);
    Recording recording(dir.file("r.db"));

    EXPECT_THAT(recording.tracks(), testing::ElementsAre("VIDEO001", "VIDEO002", "META001"));
    const StoreTime end = at(1800000600, 250000);
    ASSERT_TRUE(recording.summary());
    EXPECT_EQ(recording.summary()->start, options.start);
    EXPECT_FALSE(end < recording.summary()->end);
    EXPECT_GT(summary.events, 4u)
        << "the on/off periods asked for switch several times in 10 minutes";

    uint64_t documents = 0;
    for (StoreTime t = options.start;; ++documents) {
        const auto document = recording.metadataAt(t);
        ASSERT_TRUE(document);
        const store::RecordingState state = recording.stateAt(document->times.cur);
        ASSERT_EQ(state.state, 1) << document->times.cur.toString();
        ASSERT_THAT(state.tracksOn, testing::Contains("META001")) << document->times.cur.toString();
        ASSERT_LT(document->times.cur, end);
        if (document->times.next.isNone()) break;
        ASSERT_LT(t, document->times.next) << "the next document must lie ahead";
        t = document->times.next;
    }
    EXPECT_EQ(documents + 1, summary.documents);
    EXPECT_EQ(recording.stateAt(recording.summary()->end).state, 0)
        << "all switched off at the end";
}

// The README's example queries find some documents of a sample, never all.
TEST(SampleGenerator, TheReadmeQueriesFindSomeButNotAll)
{
    TempDir dir;
    SampleOptions options;
    options.durationSeconds = 1200;
    options.recordingOnSeconds = options.trackOnSeconds = 1e9;
    const store::SampleSummary summary = generate(dir.file("r.db"), options);
    const std::vector<std::string> queries{
        "//Object[Appearance/Class/Type='Vehicle' and Appearance/Color/ColorCluster/@Name='red']",
        "//Object/Appearance/Class/Type[.='Person' and @Likelihood > 0.8]",
        "//NotificationMessage[@Topic='VideoSource/MotionAlarm']/Data/"
        "SimpleItem[@Name='State' and @Value='true']",
        "//Frame[@ObjectCount >= 3]", "//VehicleInfo[@Type='Truck']"};
    std::vector<uint64_t> matched(queries.size());
    Recording recording(dir.file("r.db"));
    for (StoreTime t = options.start; !t.isNone();) {
        const auto document = recording.metadataAt(t).value();
        for (size_t i = 0; i < queries.size(); ++i) {
            matched[i] += rstest::plainXPathEvaluation(queries[i], document.body) == 1;
        }
        t = t < document.times.next ? document.times.next : at(0);  // never the same twice
    }
    for (size_t i = 0; i < queries.size(); ++i) {
        EXPECT_GT(matched[i], 0u) << queries[i];
        EXPECT_LT(matched[i], summary.documents / 2) << queries[i];
    }
}

TEST(SampleOptionsCheck, RefusesOptionsItCannotHonour)
{
    const std::vector<std::function<void(SampleOptions&)>> spoilers{
        [](SampleOptions& o) { o.durationSeconds = 0; },
        [](SampleOptions& o) { o.documentsPerSecond = NAN; },
        [](SampleOptions& o) { o.start = at(4294967000u); },  // would end after 2106
        [](SampleOptions& o) { o.start = at(0); },
        [](SampleOptions& o) { o.videoTracks = 0; },
        [](SampleOptions& o) {
            o.classMix = {{"Dragon", 1}};
        },
        [](SampleOptions& o) {
            o.classMix = {{"Person", 0}};
        },
        [](SampleOptions& o) { o.trackOffSeconds = -1; }};
    for (std::size_t i = 0; i < spoilers.size(); ++i) {
        SampleOptions options;
        spoilers[i](options);
        EXPECT_FALSE(options.validate().empty()) << "spoiler " << i;
        EXPECT_THROW(SampleGenerator{options}, store::StoreError) << "spoiler " << i;
    }
}

}  // namespace
