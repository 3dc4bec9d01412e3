#include "store/Importer.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <optional>
#include <sstream>

#include <libxml/parser.h>
#include <nlohmann/json.hpp>

#include "store/RecordingSchema.h"
#include "store/RecordingWriter.h"
#include "store/StoreError.h"
#include "store/StoreTime.h"

namespace store {

namespace {

std::string trim(const std::string& text)
{
    const size_t first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos) return "";
    return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

std::vector<std::string> splitFields(const std::string& line)
{
    std::vector<std::string> fields;
    std::stringstream stream(line);
    std::string field;
    while (std::getline(stream, field, ',')) fields.push_back(trim(field));
    if (!line.empty() && line.back() == ',') fields.emplace_back();
    return fields;
}

// Empty when the time can be stored, else why not.
std::string timeProblem(const std::string& text, std::optional<StoreTime>& time)
{
    time = StoreTime::parse(text);
    if (!time) return "time \"" + text + "\" is not SECONDS[.MICROSECONDS]";
    if (time->isNone()) return "time 0.0 is reserved (it means \"none\" in answers)";
    return "";
}

std::string flagProblem(const std::string& name, const std::string& text, uint32_t& value)
{
    if (text != "0" && text != "1") return name + " \"" + text + "\" is not 0 or 1";
    value = text == "1" ? 1 : 0;
    return "";
}

// Empty when the document is well-formed XML without a DTD, else why not. Parsed the way
// the search parses it, minus the network, and silently: the errors go into the report.
std::string documentProblem(const std::string& body)
{
    if (body.empty()) return "the document is empty";
    if (body.size() > Importer::kMaxDocumentBytes) {
        return "the document has " + std::to_string(body.size()) + " bytes (at most " +
               std::to_string(Importer::kMaxDocumentBytes) + ")";
    }
    xmlParserCtxtPtr context = xmlNewParserCtxt();
    if (!context) throw std::bad_alloc();
    xmlDocPtr doc = xmlCtxtReadMemory(context, body.data(), int(body.size()), nullptr, nullptr,
                                      XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
    std::string problem;
    if (!doc) {
        const xmlError& error = context->lastError;
        std::string message = error.message ? trim(error.message) : "unknown error";
        while (!message.empty() && message.back() == '\n') message.pop_back();
        problem = "the document is not well-formed XML (line " + std::to_string(error.line) +
                  ": " + message + ")";
    } else if (doc->intSubset || doc->extSubset) {
        problem = "the document carries a DTD, which the search treats as unreadable";
    }
    xmlFreeDoc(doc);
    xmlFreeParserCtxt(context);
    return problem;
}

class PendingEvent {
public:
    bool empty() const { return properties_.empty(); }
    StoreTime time() const { return time_; }
    void add(StoreTime time, EventProperty property)
    {
        time_ = time;
        properties_.push_back(std::move(property));
    }
    size_t flush(RecordingWriter& writer, bool write)
    {
        const size_t count = properties_.size();
        if (write && count) writer.addEvent(time_, properties_);
        properties_.clear();
        return count;
    }

private:
    StoreTime time_;
    std::vector<EventProperty> properties_;
};

}  // namespace

Importer::Importer(RecordingWriter& writer) : writer_(writer) {}

void Importer::problem(const std::string& where, const std::string& what)
{
    if (report_.problems.size() < kMaxReported) report_.problems.push_back(where + ": " + what);
    ++report_.problemCount;
}

ImportReport Importer::run(const ImportSources& sources)
{
    report_ = ImportReport();
    auto transaction = writer_.transaction();
    for (const std::string& track : sources.tracks) {
        if (track.empty() || track.find(',') != std::string::npos) {
            problem("--track", "track name \"" + track + "\" is empty or has a comma");
        } else {
            writer_.addTrack(track);
        }
    }
    for (const std::string& path : sources.eventFiles) readEvents(path);
    for (const std::string& path : sources.documentFiles) readDocumentLines(path);
    for (const std::string& path : sources.documentDirectories) readDocumentDirectory(path);
    if (report_.documents && writing()) writer_.addTrack(schema::kMetadataTrack);
    if (writing()) transaction->commit();
    return report_;
}

void Importer::readEvents(const std::string& path)
{
    std::ifstream in(path);
    if (!in) {
        problem(path, std::string("cannot read: ") + std::strerror(errno));
        return;
    }
    PendingEvent pending;
    std::string line;
    for (size_t number = 1; std::getline(in, line); ++number) {
        const std::string where = path + ":" + std::to_string(number);
        const std::string text = trim(line);
        if (text.empty() || text[0] == '#' || (number == 1 && text.rfind("time", 0) == 0)) continue;
        const std::vector<std::string> fields = splitFields(text);
        if (fields.size() < 3 || fields.size() > 4) {
            problem(where, "expected time,key,value[,track] but found " +
                               std::to_string(fields.size()) + " fields");
            continue;
        }
        std::optional<StoreTime> time;
        EventProperty property;
        std::string why = timeProblem(fields[0], time);
        if (why.empty()) why = flagProblem("key", fields[1], property.key);
        if (why.empty()) why = flagProblem("value", fields[2], property.value);
        if (why.empty()) property.name = fields.size() == 4 ? fields[3] : "";
        if (why.empty() && property.key == 1 && property.name.empty()) why = "key 1 needs a track name";
        if (why.empty() && property.key == 0 && !property.name.empty()) {
            why = "key 0 is the recording itself and takes no track name";
        }
        if (!why.empty()) {
            problem(where, why);
            continue;
        }
        if (!pending.empty() && pending.time() != *time) {
            ++report_.events;
            report_.properties += pending.flush(writer_, writing());
        }
        pending.add(*time, std::move(property));
    }
    if (in.bad()) problem(path, "read error");
    if (!pending.empty()) {
        ++report_.events;
        report_.properties += pending.flush(writer_, writing());
    }
}

void Importer::addDocument(const std::string& where, const std::string& timeText,
                           const std::string& body)
{
    std::optional<StoreTime> time;
    std::string why = timeProblem(timeText, time);
    if (why.empty()) why = documentProblem(body);
    if (!why.empty()) {
        problem(where, why);
        return;
    }
    if (writing()) writer_.addDocument(*time, body);
    ++report_.documents;
}

namespace {

// The time of one JSON line as text, or a problem.
std::string jsonTime(const nlohmann::json& line, std::string& timeText)
{
    if (line.contains("time")) {
        if (!line["time"].is_string()) return "\"time\" must be a string \"SECONDS[.MICROSECONDS]\"";
        timeText = line["time"].get<std::string>();
        return "";
    }
    if (!line.contains("sec")) return "no \"time\", nor \"sec\" and \"usec\"";
    const auto& sec = line["sec"];
    const nlohmann::json usec = line.contains("usec") ? line["usec"] : nlohmann::json(0);
    if (!sec.is_number_unsigned() || !usec.is_number_unsigned() ||
        sec.get<uint64_t>() > UINT32_MAX || usec.get<uint64_t>() > StoreTime::kMaxUsec) {
        return "\"sec\" must be 0 to 4294967295 and \"usec\" 0 to 999999";
    }
    char text[32];
    std::snprintf(text, sizeof text, "%llu.%06llu",
                  static_cast<unsigned long long>(sec.get<uint64_t>()),
                  static_cast<unsigned long long>(usec.get<uint64_t>()));
    timeText = text;
    return "";
}

}  // namespace

void Importer::readDocumentLines(const std::string& path)
{
    std::ifstream in(path);
    if (!in) {
        problem(path, std::string("cannot read: ") + std::strerror(errno));
        return;
    }
    std::string line;
    for (size_t number = 1; std::getline(in, line); ++number) {
        const std::string where = path + ":" + std::to_string(number);
        if (trim(line).empty()) continue;
        const nlohmann::json parsed = nlohmann::json::parse(line, nullptr, false);
        if (parsed.is_discarded()) {
            problem(where, "not a JSON value");
            continue;
        }
        if (!parsed.is_object()) {
            problem(where, "not a JSON object");
            continue;
        }
        std::string timeText;
        std::string why = jsonTime(parsed, timeText);
        if (why.empty() && (!parsed.contains("document") || !parsed["document"].is_string())) {
            why = "\"document\" must be a string";
        }
        if (!why.empty()) {
            problem(where, why);
            continue;
        }
        addDocument(where, timeText, parsed["document"].get<std::string>());
    }
    if (in.bad()) problem(path, "read error");
}

void Importer::readDocumentDirectory(const std::string& path)
{
    DIR* dir = ::opendir(path.c_str());
    if (!dir) {
        problem(path, std::string("cannot read: ") + std::strerror(errno));
        return;
    }
    std::vector<std::string> names;
    while (const dirent* entry = ::readdir(dir)) {
        const std::string name = entry->d_name;
        if (name.size() > 4 && name.compare(name.size() - 4, 4, ".xml") == 0) names.push_back(name);
    }
    ::closedir(dir);
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
        const std::string file = path + "/" + name;
        struct stat info {};
        if (::stat(file.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
            problem(file, "not a regular file");
            continue;
        }
        if (size_t(info.st_size) > kMaxDocumentBytes) {
            problem(file, "the document has " + std::to_string(info.st_size) + " bytes (at most " +
                              std::to_string(kMaxDocumentBytes) + ")");
            continue;
        }
        std::ifstream in(file, std::ios::binary);
        std::ostringstream body;
        body << in.rdbuf();
        if (!in) {
            problem(file, std::string("cannot read: ") + std::strerror(errno));
            continue;
        }
        addDocument(file, name.substr(0, name.size() - 4), body.str());
    }
}

}  // namespace store
