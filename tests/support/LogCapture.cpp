#include "support/LogCapture.h"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace rstest {

LogCapture::LogCapture()
    : LogCapture(std::getenv("KAVRO_LOG_FILE") ? std::getenv("KAVRO_LOG_FILE") : "")
{
}

LogCapture::LogCapture(std::string path) : path_(std::move(path))
{
    if (path_.empty()) throw std::runtime_error("KAVRO_LOG_FILE is not set");
    std::ifstream in(path_, std::ios::binary | std::ios::ate);
    offset_ = in ? static_cast<long long>(in.tellg()) : 0;
}

LogLine LogCapture::parse(const std::string& text)
{
    LogLine line;
    const auto blank = text.find(' ');
    const auto colon = text.find(": ", blank == std::string::npos ? 0 : blank);
    if (blank == 0 || blank > 9 || colon == std::string::npos ||
        text.find_first_not_of("0123456789") != blank) {
        line.message = text;
        return line;
    }
    line.priority = std::stoi(text.substr(0, blank));
    line.identity = text.substr(blank + 1, colon - blank - 1);
    line.message = text.substr(colon + 2);
    return line;
}

std::vector<LogLine> LogCapture::since() const
{
    std::vector<LogLine> lines;
    std::ifstream in(path_, std::ios::binary);
    in.seekg(offset_);
    // A line still being written has no newline yet: leave it for the next read.
    for (std::string text; std::getline(in, text) && !in.eof();) lines.push_back(parse(text));
    return lines;
}

bool LogCapture::contains(int priority, const std::string& substring) const
{
    for (const auto& line : since()) {
        if (line.priority == priority && line.message.find(substring) != std::string::npos)
            return true;
    }
    return false;
}

std::string LogCapture::dump() const
{
    std::ostringstream out;
    for (const auto& l : since())
        out << l.priority << ' ' << l.identity << ": " << l.message << '\n';
    return out.str();
}

}  // namespace rstest
