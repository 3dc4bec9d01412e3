// Loads a user's own history events and metadata documents from plain files into a
// recording, all or nothing: every malformed line is reported with its place, and if there
// is any, the transaction is rolled back and nothing is loaded.
//
// Times are read as StoreTime::parse reads them: SECONDS[.MICROSECONDS] or ISO 8601 UTC.
// Events, CSV, one property a line: "time,key,value[,track]", key 0 (the recording; no track)
// or 1 (a track, named), value 0 or 1. Consecutive lines with the same time make one event.
// Blank lines, "#" comments and a first line "time,..." are skipped.
// Documents, JSON lines: {"time": "TIME" or whole seconds, "document": "<...>"} or
// {"sec": N, "usec": N, "document": "<...>"}.
// Documents, a directory: one file per document, named "TIME.xml".
// A document must be readable as the search reads it (jobs/XmlLibrary.h): well-formed XML
// without a DTD, at most kMaxDocumentBytes.
//
// Safe to repeat: an event or document whose time the recording already holds is skipped
// when it is the same, and a problem when it differs. One instant holds one event and one
// document, so a time given twice in one import is a problem too.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_set>
#include <vector>

#include "store/StoreTime.h"

namespace store {

class RecordingWriter;
struct EventProperty;

struct ImportSources {
    std::vector<std::string> eventFiles;
    std::vector<std::string> documentFiles;
    std::vector<std::string> documentDirectories;
    std::vector<std::string> tracks;  // declared even when no event names them
};

struct ImportReport {
    uint64_t events = 0;
    uint64_t properties = 0;
    uint64_t documents = 0;
    uint64_t skippedEvents = 0;  // already in the recording, the same
    uint64_t skippedDocuments = 0;
    std::vector<std::string> problems;  // "FILE:LINE: what is wrong", in input order
    uint64_t problemCount = 0;          // problems beyond kMaxReported are counted only
    bool loaded() const { return problemCount == 0; }
};

class Importer {
public:
    static constexpr size_t kMaxReported = 100;

    explicit Importer(RecordingWriter& writer);

    // Reads every source through; commits only when no problem was found.
    ImportReport run(const ImportSources& sources);

private:
    void readEvents(const std::string& path);
    void readDocumentLines(const std::string& path);
    void readDocumentDirectory(const std::string& path);
    void addEvent(const std::string& where, StoreTime time,
                  const std::vector<EventProperty>& properties);
    void addDocument(const std::string& where, StoreTime time, const std::string& body);
    void problem(const std::string& where, const std::string& what);
    bool writing() const { return report_.problemCount == 0; }

    RecordingWriter& writer_;
    ImportReport report_;
    std::unordered_set<int64_t> eventTimes_;  // StoreTime::key() of those this import gave
    std::unordered_set<int64_t> documentTimes_;
};

}  // namespace store
