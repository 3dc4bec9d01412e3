#include "store/StoreCommands.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <sstream>

#include "client/TimeText.h"
#include "store/RecordingWriter.h"
#include "store/StoreError.h"

namespace store {

namespace {

bool exists(const std::string& path)
{
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0;
}

class Progress {
public:
    explicit Progress(const char* what) : what_(what), enabled_(::isatty(STDERR_FILENO) == 1) {}
    ~Progress()
    {
        if (shown_) std::fprintf(stderr, "\n");
    }
    void operator()(double fraction)
    {
        if (!enabled_) return;
        const int percent = int(fraction * 100);
        if (percent == lastPercent_) return;
        lastPercent_ = percent;
        shown_ = true;
        std::fprintf(stderr, "\r%s: %3d%%", what_, percent);
        std::fflush(stderr);
    }

private:
    const char* what_;
    bool enabled_;
    bool shown_ = false;
    int lastPercent_ = -1;
};

std::string isoTime(StoreTime time)
{
    const time_t seconds = time.sec;
    tm parts{};
    gmtime_r(&seconds, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

void printSummary(const std::string& path, const SampleSummary& summary)
{
    std::string tracks;
    for (const std::string& track : summary.tracks) tracks += (tracks.empty() ? "" : " ") + track;
    std::printf(
        "%s: %llu history events, %llu metadata documents (%.1f MB of XML), tracks %s, "
        "from %s (%s) to %s (%s)\n",
        path.c_str(), static_cast<unsigned long long>(summary.events),
        static_cast<unsigned long long>(summary.documents), double(summary.documentBytes) / 1e6,
        tracks.c_str(), summary.first.toString().c_str(), isoTime(summary.first).c_str(),
        summary.last.toString().c_str(), isoTime(summary.last).c_str());
}

}  // namespace

int generateCommand(const std::string& path, const SampleOptions& options, bool overwrite)
{
    if (!overwrite && exists(path)) {
        std::fprintf(stderr, "recording_store: %s already exists (--force to replace it)\n",
                     path.c_str());
        return 1;
    }
    // Written beside the target and renamed into place: a failed run leaves no half recording.
    const std::string temporary = path + ".tmp." + std::to_string(::getpid());
    try {
        SampleGenerator generator(options);
        SampleSummary summary;
        {
            RecordingWriter writer(temporary, RecordingWriter::Durability::Bulk);
            Progress progress("generate");
            summary = generator.generate(writer, std::ref(progress));
        }
        if (std::rename(temporary.c_str(), path.c_str()) != 0) {
            throw StoreError(path + ": cannot write: " + std::strerror(errno));
        }
        printSummary(path, summary);
        return 0;
    } catch (const StoreError& e) {
        ::unlink(temporary.c_str());
        std::fprintf(stderr, "recording_store: %s\n", e.what());
        return 1;
    }
}

int appendCommand(const std::string& path, SampleOptions options)
{
    if (!exists(path)) {
        std::fprintf(stderr, "recording_store: %s does not exist (generate it first)\n",
                     path.c_str());
        return 1;
    }
    try {
        // One transaction: readers see the whole stretch or none of it.
        RecordingWriter writer(path, RecordingWriter::Durability::Shared);
        if (const auto last = writer.lastTime()) {
            const auto interval = int64_t(1e6 / options.documentsPerSecond);
            options.start = StoreTime::fromKey(last->key() + std::max<int64_t>(1, interval));
        }
        SampleGenerator generator(options);
        printSummary(path, generator.generate(writer));
        return 0;
    } catch (const StoreError& e) {
        std::fprintf(stderr, "recording_store: %s\n", e.what());
        return 1;
    }
}

int importCommand(const std::string& path, const ImportSources& sources)
{
    const bool existed = exists(path);
    try {
        ImportReport report;
        {
            RecordingWriter writer(path, RecordingWriter::Durability::Safe);
            Importer importer(writer);
            report = importer.run(sources);
        }
        if (!report.loaded()) {
            for (const std::string& problem : report.problems)
                std::fprintf(stderr, "%s\n", problem.c_str());
            if (report.problemCount > report.problems.size()) {
                std::fprintf(
                    stderr, "... and %llu more\n",
                    static_cast<unsigned long long>(report.problemCount - report.problems.size()));
            }
            std::fprintf(stderr,
                         "recording_store: %llu bad input lines; nothing was loaded into %s\n",
                         static_cast<unsigned long long>(report.problemCount), path.c_str());
            if (!existed) ::unlink(path.c_str());
            return 1;
        }
        std::printf(
            "%s: loaded %llu history events (%llu properties) and %llu metadata documents; "
            "skipped %llu history events and %llu metadata documents already present\n",
            path.c_str(), static_cast<unsigned long long>(report.events),
            static_cast<unsigned long long>(report.properties),
            static_cast<unsigned long long>(report.documents),
            static_cast<unsigned long long>(report.skippedEvents),
            static_cast<unsigned long long>(report.skippedDocuments));
        return 0;
    } catch (const StoreError& e) {
        if (!existed) ::unlink(path.c_str());
        std::fprintf(stderr, "recording_store: %s\n", e.what());
        return 1;
    }
}

bool parseStartTime(const std::string& text, StoreTime& time)
{
    const auto parsed = StoreTime::parse(text, nullptr);
    if (parsed) time = *parsed;
    return bool(parsed);
}

bool parseDuration(const std::string& text, double& seconds)
{
    const auto duration = rsclient::parseDuration(text, nullptr);
    if (duration) seconds = double(duration->count()) / 1e6;
    return bool(duration);
}

bool parseClassMix(const std::string& text, std::map<std::string, double>& mix)
{
    std::map<std::string, double> parsed;
    std::stringstream stream(text);
    std::string entry;
    while (std::getline(stream, entry, ',')) {
        const size_t equals = entry.find('=');
        if (equals == std::string::npos || equals == 0) return false;
        std::string name = entry.substr(0, equals);
        for (char& c : name) c = char(std::tolower(static_cast<unsigned char>(c)));
        name[0] = char(std::toupper(static_cast<unsigned char>(name[0])));
        char* end = nullptr;
        const std::string weight = entry.substr(equals + 1);
        const double value = std::strtod(weight.c_str(), &end);
        if (weight.empty() || *end != '\0') return false;
        parsed[name] = value;
    }
    if (parsed.empty()) return false;
    mix = std::move(parsed);
    return true;
}

}  // namespace store
