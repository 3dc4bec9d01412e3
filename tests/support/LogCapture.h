// Reads what the framework's logging wrote to $KAVRO_LOG_FILE since a mark.
#pragma once

#include <string>
#include <vector>

namespace rstest {

struct LogLine {
    int priority = -1;  // -1 for a line that is not "<priority> <identity>: <message>"
    std::string identity;
    std::string message;
};

// The processes of one test binary append to one file and tests run one after another, so the
// file's size when the capture is made separates a test's lines from earlier tests' lines.
class LogCapture {
public:
    LogCapture();                           // the file named by $KAVRO_LOG_FILE
    explicit LogCapture(std::string path);  // another file, e.g. a process's own log

    std::vector<LogLine> since() const;
    bool contains(int priority, const std::string& substring) const;
    std::string dump() const;  // every line since the mark, for failure messages

    static LogLine parse(const std::string& line);

private:
    std::string path_;
    long long offset_ = 0;
};

}  // namespace rstest
