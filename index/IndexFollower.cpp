#include "index/IndexFollower.h"

#include <sys/prctl.h>

#include <cstdlib>
#include <memory>
#include <utility>
#include <vector>

#include "jobs/HardenedParser.h"
#include "kavro/contract.h"
#include "kavro/core.h"
#include "kavro/recording_initiators.h"

namespace rsindex {

namespace {

constexpr std::chrono::microseconds kPause{500};
constexpr std::size_t kBatch = 256;
constexpr std::chrono::seconds kBatchAge{1};
constexpr std::chrono::seconds kRetryEvery{2};
constexpr std::size_t kRereadAtMost = 100000;

Micros micros(unsigned sec, unsigned usec) { return Micros(sec) * 1000000 + usec; }

}  // namespace

struct IndexFollower::Answer {
    Micros cur = 0;
    Micros next = 0;  // 0: none
    std::string text;
};

const char* stateName(IndexFollower::State state)
{
    switch (state) {
    case IndexFollower::State::Building: return "building";
    case IndexFollower::State::Following: return "following";
    case IndexFollower::State::Waiting: return "waiting";
    default: return "starting";
    }
}

IndexFollower::IndexFollower(const std::string& databasePath, void* logCookie,
                             std::chrono::milliseconds pollEvery)
    : store_(databasePath, IndexStore::Access::Writer), logCookie_(logCookie), pollEvery_(pollEvery)
{
    if (!store_.damage().empty()) {
        kavro_core_logging_log(logCookie, 4,
                               "The index %s was damaged (%s); moved aside to %s.damaged and "
                               "built anew",
                               databasePath.c_str(), store_.damage().c_str(), databasePath.c_str());
    }
    kavro_api_recording_information_initiator_init(nullptr, logCookie, &information_, nullptr,
                                                   nullptr);
    kavro_api_recording_data_access_initiator_init(nullptr, logCookie, &dataAccess_, nullptr,
                                                   nullptr);
}

IndexFollower::~IndexFollower()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable()) thread_.join();
    kavro_api_recording_data_access_initiator_deinit(dataAccess_);
    kavro_api_recording_information_initiator_deinit(information_);
}

void IndexFollower::reread()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        reread_ = true;
    }
    wake_.notify_all();
}

// Rows that do not decode, from the recording again; one that is no longer there goes.
void IndexFollower::rereadRows()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!std::exchange(reread_, false)) return;
    }
    HardenedParser parser;
    const auto times = store_.undecodable(kRereadAtMost);
    for (const Micros time : times) {
        Answer answer;
        if (!fetch(time, answer)) return;
        if (answer.cur != time) {
            store_.remove(time);
            continue;
        }
        xmlDocPtr doc = parser.parse(answer.text);
        store_.replace({time, textHash(answer.text), factsOf(doc), answer.text});
        xmlFreeDoc(doc);
    }
    kavro_core_logging_log(logCookie_, 5, "Read %zu documents again: their rows did not decode",
                           times.size());
}

void IndexFollower::start()
{
    thread_ = std::thread([this] { run(); });
}

bool IndexFollower::sleepFor(std::chrono::milliseconds time)
{
    std::unique_lock<std::mutex> lock(mutex_);
    wake_.wait_for(lock, time, [this] { return stopping_ || reread_; });
    return !stopping_;
}

void IndexFollower::run()
{
    prctl(PR_SET_TIMERSLACK, 1);
    while (true) {
        try {
            followOnce();
        } catch (const std::exception& e) {
            kavro_core_logging_log(logCookie_, 3, "Indexing failed: %s", e.what());
        }
        if (!sleepFor(state_ == State::Following ? pollEvery_
                                                 : std::chrono::milliseconds(kRetryEvery))) {
            return;
        }
    }
}

// One document, and the time after it; false when the service failed or has none.
bool IndexFollower::fetch(Micros at, Answer& answer)
{
    unsigned cs = 0, cu = 0, ps = 0, pu = 0, ns = 0, nu = 0;
    char* text = nullptr;
    const kavro_core_status status = kavro_api_recording_data_access_get_metadata_send(
        dataAccess_, "recording_data_access", unsigned(at / 1000000), unsigned(at % 1000000), &cs,
        &cu, &ps, &pu, &ns, &nu, &text);
    std::unique_ptr<char, decltype(&std::free)> owned(text, &std::free);
    std::this_thread::sleep_for(kPause);
    if (status != KAVRO_STATUS_OK) return false;
    answer.cur = micros(cs, cu);
    answer.next = micros(ns, nu);
    answer.text = text ? text : "";
    return true;
}

// The recording is the one indexed when the first document the index still holds from the
// track's start on is still there, with the same text.
bool IndexFollower::sameRecording(Micros trackStart)
{
    const auto first = store_.firstFrom(trackStart);
    if (!first) return !store_.span();  // nothing kept: nothing to contradict
    Answer answer;
    if (!fetch(*first, answer)) return false;
    return answer.cur == *first && store_.hashAt(*first) == textHash(answer.text);
}

void IndexFollower::followOnce()
{
    unsigned ss = 0, su = 0, es = 0, eu = 0;
    if (kavro_api_recording_information_get_track_summary_send(
            information_, "recording_information", kavro::contract::kMetadataTrack, &ss, &su, &es,
            &eu) != KAVRO_STATUS_OK) {
        state_ = State::Waiting;
        return;
    }
    rereadRows();
    const Micros trackStart = micros(ss, su), trackEnd = micros(es, eu);
    if (!sameRecording(trackStart)) {
        kavro_core_logging_log(logCookie_, 5, "The recording is not the one indexed; rebuilding");
        store_.clear();
    }
    if (auto span = store_.span(); span && span->from < trackStart) store_.dropBefore(trackStart);

    // From the document after the mark, or from the track's start.
    Answer answer;
    const auto span = store_.span();
    Micros at = span ? span->through : trackStart;
    if (!fetch(at, answer)) {
        state_ = State::Waiting;
        return;
    }
    HardenedParser parser;
    std::vector<IndexedDocument> batch;
    auto batchStarted = std::chrono::steady_clock::now();
    bool added = false;
    const auto flush = [&] {
        if (!batch.empty()) store_.add(batch);
        if (!batch.empty()) store_.trainWhenReady();
        added |= !batch.empty();
        batch.clear();
        batchStarted = std::chrono::steady_clock::now();
    };
    bool first = !span;
    if (state_ != State::Following) state_ = State::Building;
    while (true) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (stopping_) break;
        }
        if (answer.cur > trackEnd) break;  // grown since the summary: the next round reads it
        const bool fresh = first ? answer.cur >= trackStart : answer.cur > at;
        if (fresh) {
            xmlDocPtr doc = parser.parse(answer.text);
            batch.push_back({answer.cur, textHash(answer.text), factsOf(doc), answer.text});
            xmlFreeDoc(doc);
            at = answer.cur;
            first = false;
        }
        if (batch.size() >= kBatch || std::chrono::steady_clock::now() - batchStarted > kBatchAge) {
            flush();
        }
        if (answer.next == 0 || answer.next <= answer.cur) break;  // the end, for now
        if (!fetch(answer.next, answer)) {
            flush();
            state_ = State::Waiting;
            return;
        }
    }
    flush();
    if (added) store_.settle();  // caught up: what is on disk is what the index holds
    state_ = State::Following;
}

}  // namespace rsindex
