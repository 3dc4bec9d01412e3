#include "support/LogCapture.h"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace rstest {

namespace {

std::string logFileFromEnvironment()
{
    const char* path = std::getenv("KAVRO_LOG_FILE");
    if (!path || !*path) throw std::runtime_error("KAVRO_LOG_FILE is not set");
    return path;
}

long long fileSize(const std::string& path)
{
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    return in ? static_cast<long long>(in.tellg()) : 0;
}

bool matches(const LogLine& line, int priority)
{
    return priority == -1 || line.priority == priority;
}

}  // namespace

LogCapture::LogCapture() : LogCapture(logFileFromEnvironment()) {}

LogCapture::LogCapture(std::string path) : path_(std::move(path)) { mark(); }

void LogCapture::mark() { offset_ = fileSize(path_); }

LogLine LogCapture::parse(const std::string& text)
{
    LogLine line;
    const auto blank = text.find(' ');
    const auto colon = text.find(": ", blank == std::string::npos ? 0 : blank);
    const bool shaped = blank != std::string::npos && blank > 0 && colon != std::string::npos &&
                        text.find_first_not_of("0123456789") == blank && blank <= 9;
    if (!shaped) {
        line.message = text;
        return line;
    }
    line.priority = std::stoi(text.substr(0, blank));
    line.identity = text.substr(blank + 1, colon - blank - 1);
    line.message = text.substr(colon + 2);
    return line;
}

std::vector<LogLine> LogCapture::since() const { return since(-1); }

std::vector<LogLine> LogCapture::since(int priority) const
{
    std::vector<LogLine> lines;
    std::ifstream in(path_, std::ios::binary);
    if (!in) return lines;
    in.seekg(offset_);
    std::string text;
    // A line still being written has no newline yet: leave it for the next read.
    while (std::getline(in, text) && !in.eof()) {
        LogLine line = parse(text);
        if (matches(line, priority)) lines.push_back(std::move(line));
    }
    return lines;
}

bool LogCapture::contains(int priority, const std::string& substring) const
{
    for (const auto& line : since(priority)) {
        if (line.message.find(substring) != std::string::npos) return true;
    }
    return false;
}

bool LogCapture::waitFor(int priority, const std::string& substring,
                         std::chrono::milliseconds timeout) const
{
    // The writers are other threads and processes with nothing to wait on but the file itself.
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!contains(priority, substring)) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

int LogCapture::count(int priority, const std::string& exactMessage) const
{
    int n = 0;
    for (const auto& line : since(priority)) n += line.message == exactMessage ? 1 : 0;
    return n;
}

std::string LogCapture::dump() const
{
    std::ostringstream out;
    for (const auto& line : since()) {
        out << line.priority << ' ' << line.identity << ": " << line.message << '\n';
    }
    return out.str();
}

}  // namespace rstest
