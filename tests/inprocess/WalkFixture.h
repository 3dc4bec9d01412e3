// A target whose walks ask a recording written with the store's own writer, through the
// link-time fake of the recording services; events are kept by the fake runner.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <boost/pointer_cast.hpp>
#include <boost/shared_ptr.hpp>
#include <gtest/gtest.h>

#include "fake/RecordingServicesFake.h"
#include "jobs/TimelineSearchJob.h"
#include "kavro/KavroApiRecordingSearchTargetRun.h"
#include "store/Recording.h"
#include "store/RecordingStoreServices.h"
#include "store/RecordingWriter.h"
#include "support/ProcessRunner.h"
#include "support/TempDir.h"
#include "target/RecordingSearchTargetImpl.h"

namespace walk {

using fake::Sent;
using rstest::pollUntil;

inline SearchTime t(unsigned int sec, unsigned int usec = 0) { return {sec, usec}; }

inline std::string frame(const char* type)
{
    return std::string("<Frame><Object><Class><Type>") + type + "</Type></Class></Object></Frame>";
}
constexpr const char* kPerson = "//Object[Class/Type='Person']";

// The recording: on from 100 to 130; VIDEO001 on 100-120, AUDIO001 110.5-130; metadata
// documents at 102 (Person), 105 (Vehicle), 112 (Person), 125 (Animal).
inline std::string writeRecording(const std::string& path)
{
    store::RecordingWriter w(path, store::RecordingWriter::Durability::Bulk);
    auto tx = w.transaction();
    w.addTrack("VIDEO001");
    w.addTrack("AUDIO001");
    w.addTrack("META001");
    w.addEvent({100, 0}, {{0, 1, ""}, {1, 1, "VIDEO001"}});
    w.addEvent({110, 500000}, {{1, 1, "AUDIO001"}});
    w.addEvent({120, 0}, {{1, 0, "VIDEO001"}});
    w.addEvent({130, 0}, {{0, 0, ""}, {1, 0, "AUDIO001"}});
    w.addDocument({102, 0}, frame("Person"));
    w.addDocument({105, 0}, frame("Vehicle"));
    w.addDocument({112, 0}, frame("Person"));
    w.addDocument({125, 0}, frame("Animal"));
    tx->commit();
    return path;
}

// The three services answering as recording_store does, from the store's own Recording; a
// test may turn any answer into a failure, or tamper with history and metadata answers.
class StoreServices : public fake::RecordingServices {
public:
    explicit StoreServices(const std::string& path) : recording_(path) {}

    std::set<std::string> failing;
    std::function<void(SearchTime, fake::HistoryAnswer&)> history;
    std::function<void(SearchTime, fake::MetadataAnswer&)> document;
    int historyCalls = 0;
    int metadataCalls = 0;

    kavro_core_status tracks(std::vector<std::string>& names) override
    {
        names = recording_.tracks();
        return status("tracks", true);
    }
    kavro_core_status summary(SearchTime& start, SearchTime& end) override
    {
        return span("summary", recording_.summary(), start, end);
    }
    kavro_core_status trackSummary(const std::string& track, SearchTime& start,
                                   SearchTime& end) override
    {
        if (!recording_.hasTrack(track)) return kavro_core_status(store::kStatusUnknownTrack);
        return span("trackSummary", recording_.trackSummary(track), start, end);
    }
    kavro_core_status state(SearchTime at, unsigned char& state,
                            std::vector<std::string>& tracksOn) override
    {
        store::RecordingState s = recording_.stateAt({at.sec, at.usec});
        state = s.state;
        tracksOn = std::move(s.tracksOn);
        return status("state", true);
    }
    kavro_core_status firstEvent(SearchTime& at) override
    {
        const auto first = recording_.firstHistoryEventTime();
        if (first) at = time(*first);
        return status("firstEvent", first.has_value());
    }
    kavro_core_status historyEvent(SearchTime at, fake::HistoryAnswer& answer) override
    {
        ++historyCalls;
        const auto event = recording_.historyEventAt({at.sec, at.usec});
        if (!event || failing.count("historyEvent")) return status("historyEvent", false);
        answer.times = times(event->times);
        answer.names.emplace(), answer.keys.emplace(), answer.values.emplace();
        for (const store::EventProperty& p : event->properties) {
            answer.names->push_back(p.name);
            answer.keys->push_back(p.key);
            answer.values->push_back(p.value);
        }
        if (history) history(at, answer);
        return KAVRO_STATUS_OK;
    }
    kavro_core_status metadata(SearchTime at, fake::MetadataAnswer& answer) override
    {
        ++metadataCalls;
        const auto found = recording_.metadataAt({at.sec, at.usec});
        if (!found || failing.count("metadata")) return status("metadata", false);
        answer.times = times(found->times);
        answer.document = found->body;
        if (document) document(at, answer);
        return KAVRO_STATUS_OK;
    }

private:
    // The store's "no data" answer when it has none; KAVRO_STATUS_FAILED when the test says so.
    kavro_core_status status(const char* call, bool hasData) const
    {
        if (failing.count(call)) return KAVRO_STATUS_FAILED;
        return hasData ? KAVRO_STATUS_OK : kavro_core_status(store::kStatusNoData);
    }
    kavro_core_status span(const char* call, const std::optional<store::TimeSpan>& s,
                           SearchTime& start, SearchTime& end) const
    {
        if (s) start = time(s->start), end = time(s->end);
        return status(call, s.has_value());
    }
    static SearchTime time(store::StoreTime t) { return {t.sec, t.usec}; }
    static NeighbourTimes times(const store::Neighbours& n)
    {
        return {time(n.cur), time(n.prev), time(n.next)};
    }

    store::Recording recording_;
};

class WalkTest : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        dir = new rstest::TempDir("rs-walk");
        path = writeRecording(dir->file("walk.rec"));
    }
    static void TearDownTestSuite() { delete dir; }

    explicit WalkTest(RecordingSearchTargetImpl::Limits limits = {})
        : services(path), target(new RecordingSearchTargetImpl(nullptr, limits))
    {
        fake::install(&services);
    }
    ~WalkTest() override
    {
        target->stopProcessEvents();
        loop.join();
        fake::install(nullptr);
        fake::takeSent();
    }

    int createEvent(SearchTime from, SearchTime to, int maxResults = -1, bool startState = false)
    {
        int id = -1;
        EXPECT_EQ(0, target->createEventSearch(from.sec, from.usec, to.sec, to.usec, maxResults, 0,
                                               0, startState, &id));
        return id;
    }
    int createMetadata(SearchTime from, SearchTime to, const char* xpath, int maxResults = -1)
    {
        int id = -1;
        EXPECT_EQ(0, target->createMetadataSearch(from.sec, from.usec, to.sec, to.usec, maxResults,
                                                  xpath, &id));
        return id;
    }

    // Runs the job's walk on this thread, ends it, and gives what it sent before its
    // completion; `reached` gets what endSearch reported.
    std::vector<Sent> walk(int id, SearchTime* reached = nullptr)
    {
        auto job = boost::dynamic_pointer_cast<TimelineSearchJob>(target->findJob(id));
        if (!job) {
            ADD_FAILURE() << "no timeline search " << id;
            return {};
        }
        job->performSearch();
        unsigned int idOut = 0;
        SearchTime end;
        target->endSearch(id, &idOut, &end.sec, &end.usec);
        if (reached) *reached = end;
        EXPECT_TRUE(fake::waitForCompletion(id));
        std::vector<Sent> sent = fake::takeSent();
        EXPECT_FALSE(sent.empty());
        if (!sent.empty()) {
            EXPECT_EQ(Sent::Completed, sent.back().kind);
            sent.pop_back();
        }
        for (Sent& s : sent) {
            EXPECT_EQ(static_cast<unsigned>(id), s.jobId);
            s.jobId = 0;
        }
        return sent;
    }

    static rstest::TempDir* dir;
    static std::string path;
    StoreServices services;
    boost::shared_ptr<RecordingSearchTargetImpl> target;
    KavroApiRecordingSearchTargetRun run{"recording_search", nullptr, target};
    std::thread loop{[this] { target->processEventLoop(); }};
};

inline rstest::TempDir* WalkTest::dir = nullptr;
inline std::string WalkTest::path;

inline Sent track(SearchTime at, const char* name, int state, int start = 0)
{
    return Sent{Sent::Track, 0, at, name, state, start};
}
inline Sent recording(SearchTime at, int state, int start = 0)
{
    return Sent{Sent::Recording, 0, at, "", state, start};
}
inline Sent meta(SearchTime at) { return Sent{Sent::Metadata, 0, at, "", 0, 0}; }

}  // namespace walk
