// Loads a user's own history events and metadata documents from plain files into a
// recording, all or nothing: every malformed line is reported with its place, and if there
// is any, the transaction is rolled back and nothing is loaded.
//
// Events, CSV, one property a line: "time,key,value[,track]", time "SECONDS[.MICROSECONDS]",
// key 0 (the recording; no track) or 1 (a track, named), value 0 or 1. Consecutive lines
// with the same time make one event. Blank lines, "#" comments and a first line "time,..."
// are skipped.
// Documents, JSON lines: {"time": "SECONDS[.MICROSECONDS]", "document": "<...>"} or
// {"sec": N, "usec": N, "document": "<...>"}.
// Documents, a directory: one file per document, named "SECONDS[.MICROSECONDS].xml".
// A document must be well-formed XML without a DTD and at most kMaxDocumentBytes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace store {

class RecordingWriter;

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
    std::vector<std::string> problems;  // "FILE:LINE: what is wrong", in input order
    uint64_t problemCount = 0;          // problems beyond kMaxReported are counted only
    bool loaded() const { return problemCount == 0; }
};

class Importer {
public:
    static constexpr size_t kMaxDocumentBytes = 1 << 20;
    static constexpr size_t kMaxReported = 100;

    explicit Importer(RecordingWriter& writer);

    // Reads every source through; commits only when no problem was found.
    ImportReport run(const ImportSources& sources);

private:
    void readEvents(const std::string& path);
    void readDocumentLines(const std::string& path);
    void readDocumentDirectory(const std::string& path);
    void addDocument(const std::string& where, const std::string& timeText, const std::string& body);
    void problem(const std::string& where, const std::string& what);
    bool writing() const { return report_.problemCount == 0; }

    RecordingWriter& writer_;
    ImportReport report_;
};

}  // namespace store
