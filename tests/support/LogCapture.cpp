#include "support/LogCapture.h"

#include <cstdlib>
#include <fstream>
#include <regex>
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
    static const std::regex form(R"((\d{1,9}) ([^:]*): ([\s\S]*))");
    std::smatch m;
    if (!std::regex_match(text, m, form)) return LogLine{-1, "", text};
    return LogLine{std::stoi(m[1]), m[2], m[3]};
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
