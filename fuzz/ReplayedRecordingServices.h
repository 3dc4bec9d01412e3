// The initiator calls of the three recording services, answered from fuzzer input instead of
// the bus: every reply a walk asks for (times, track lists, history events, documents, failure
// statuses) is read from the bytes. Linked in place of the framework's bus-backed initiators.
#pragma once

#include <set>
#include <string>

#include "FuzzInput.h"

namespace replay {

// Replies come from this input until the next begin(); after kMaxReplies replies, or when the
// input runs out, every call fails, which ends any walk.
void begin(FuzzInput& input);
void end();

constexpr int kMaxReplies = 48;

// Times as the fuzzer chooses them: mostly a few seconds around kBase, so that walks stay in
// their ranges, and the edges (0.0, the largest values, microseconds above 999999) mixed in.
constexpr unsigned int kBase = 1000;
unsigned int seconds(FuzzInput& input);
unsigned int microseconds(FuzzInput& input);

// Every track name that a reply carried since begin(), so results can be checked against them.
const std::set<std::string>& namesGiven();

}  // namespace replay
