// Reads the recording's metadata documents in time order, one call at a time with a walk's
// pause after each, so the recording services never carry more than one walk's load; parses
// each under the matcher's hardened rules and stores its facts. It resumes from the mark after
// a restart, follows the track's end as it grows, drops what retention removed, and rebuilds
// when the recording is not the one it indexed. The recording services gone: it waits.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "index/IndexStore.h"

namespace rsindex {

class IndexFollower {
public:
    enum class State { Starting, Building, Following, Waiting };

    IndexFollower(const std::string& databasePath, void* logCookie,
                  std::chrono::milliseconds pollEvery);
    ~IndexFollower();  // stops and joins

    void start();
    State state() const { return state_.load(); }
    // A query found a row that does not decode: every such row is read again from the
    // recording.
    void reread();

    IndexFollower(const IndexFollower&) = delete;
    IndexFollower& operator=(const IndexFollower&) = delete;

private:
    struct Answer;
    void run();
    void followOnce();
    bool fetch(Micros at, Answer& answer);
    bool sameRecording(Micros trackStart);
    void rereadRows();
    bool sleepFor(std::chrono::milliseconds time);  // false once stopping

    IndexStore store_;
    void* logCookie_;
    std::chrono::milliseconds pollEvery_;
    void* information_ = nullptr;
    void* dataAccess_ = nullptr;
    std::atomic<State> state_{State::Starting};
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    bool reread_ = false;  // under mutex_
    std::thread thread_;
};

const char* stateName(IndexFollower::State state);

}  // namespace rsindex
