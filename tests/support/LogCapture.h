// Reads what the framework's logging wrote to $KAVRO_LOG_FILE since a mark.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace rstest {

struct LogLine {
    int priority = -1;  // -1 for a line that is not "<priority> <identity>: <message>"
    std::string identity;
    std::string message;
};

// The processes of one test binary append to one file and tests run one after another, so a
// byte offset taken at the start of a test separates its lines from earlier tests' lines.
// Safe to use from several threads; the file is re-read on every query.
class LogCapture {
public:
    // The file named by $KAVRO_LOG_FILE; marks its current end.
    LogCapture();
    // Another file (for example the log of a process started by an integration test).
    explicit LogCapture(std::string path);

    void mark();  // later queries see only lines written after this
    const std::string& path() const { return path_; }

    std::vector<LogLine> since() const;
    // Lines whose priority matches (any priority when -1).
    std::vector<LogLine> since(int priority) const;
    // Waits until a line at this priority (any when -1) contains the text.
    bool waitFor(int priority, const std::string& substring,
                 std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;
    bool contains(int priority, const std::string& substring) const;
    int count(int priority, const std::string& exactMessage) const;
    // Every line since the mark, one per line, for failure messages.
    std::string dump() const;

    static LogLine parse(const std::string& line);

private:
    std::string path_;
    long long offset_ = 0;
};

}  // namespace rstest
