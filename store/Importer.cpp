#include "store/Importer.h"

#include <dirent.h>
#include <libxml/parser.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <optional>
#include <sstream>

#include <nlohmann/json.hpp>

#include "jobs/XmlLibrary.h"
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

std::string storable(StoreTime time)
{
    return time.isNone() ? "time 0.0 is reserved (it means \"none\" in answers)" : "";
}

// Empty when the time can be stored, else why not.
std::string timeProblem(const std::string& text, std::optional<StoreTime>& time)
{
    std::string why;
    time = StoreTime::parse(text, &why);
    return time ? storable(*time) : "time \"" + text + "\": " + why;
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
    if (!readableSize(body.size())) {
        return body.empty() ? "the document is empty"
                            : "the document has " + std::to_string(body.size()) +
                                  " bytes (at most " + std::to_string(kMaxDocumentBytes) + ")";
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
        problem = "the document is not well-formed XML (line " + std::to_string(error.line) + ": " +
                  message + ")";
    } else if (carriesDocumentType(*doc)) {
        problem = "the document carries a DTD, which the search treats as unreadable";
    }
    xmlFreeDoc(doc);
    xmlFreeParserCtxt(context);
    return problem;
}

// The lines of one time, which make one event.
struct PendingEvent {
    std::string where;  // its first line
    StoreTime time;
    std::vector<EventProperty> properties;
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
    eventTimes_.clear();
    documentTimes_.clear();
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
        if (why.empty() && property.key == 1 && property.name.empty())
            why = "key 1 needs a track name";
        if (why.empty() && property.key == 0 && !property.name.empty()) {
            why = "key 0 is the recording itself and takes no track name";
        }
        if (!why.empty()) {
            problem(where, why);
            continue;
        }
        if (!pending.properties.empty() && pending.time != *time) {
            addEvent(pending.where, pending.time, pending.properties);
            pending.properties.clear();
        }
        if (pending.properties.empty()) pending.where = where;
        pending.time = *time;
        pending.properties.push_back(std::move(property));
    }
    if (in.bad()) problem(path, "read error");
    if (!pending.properties.empty()) addEvent(pending.where, pending.time, pending.properties);
}

void Importer::addEvent(const std::string& where, StoreTime time,
                        const std::vector<EventProperty>& properties)
{
    if (!eventTimes_.insert(time.key()).second) {
        problem(where, "time " + time.toString() +
                           " is given twice in this import (one instant holds one history event)");
        return;
    }
    const std::vector<EventProperty> recorded = writer_.propertiesAt(time);
    if (recorded.empty()) {
        if (writing()) writer_.addEvent(time, properties);
        ++report_.events;
        report_.properties += properties.size();
    } else if (recorded == properties) {
        ++report_.skippedEvents;
    } else {
        problem(where, "the recording holds a different history event at " + time.toString());
    }
}

void Importer::addDocument(const std::string& where, StoreTime time, const std::string& body)
{
    const std::string why = documentProblem(body);
    if (!why.empty()) {
        problem(where, why);
        return;
    }
    if (!documentTimes_.insert(time.key()).second) {
        problem(where, "time " + time.toString() +
                           " is given twice in this import (one instant holds one document)");
        return;
    }
    const std::optional<std::string> recorded = writer_.documentAt(time);
    if (!recorded) {
        if (writing()) writer_.addDocument(time, body);
        ++report_.documents;
    } else if (*recorded == body) {
        ++report_.skippedDocuments;
    } else {
        problem(where, "the recording holds a different metadata document at " + time.toString());
    }
}

namespace {

// The time of one JSON line, or a problem.
std::string jsonTime(const nlohmann::json& line, std::optional<StoreTime>& time)
{
    if (line.contains("time")) {
        const auto& value = line["time"];
        if (value.is_string()) return timeProblem(value.get<std::string>(), time);
        if (!value.is_number_unsigned() || value.get<uint64_t>() > UINT32_MAX) {
            return "\"time\" must be a string (SECONDS[.MICROSECONDS] or ISO 8601 UTC) or whole "
                   "seconds 0 to 4294967295";
        }
        time = StoreTime{uint32_t(value.get<uint64_t>()), 0};
        return storable(*time);
    }
    if (!line.contains("sec")) return "no \"time\", nor \"sec\" and \"usec\"";
    const auto& sec = line["sec"];
    const nlohmann::json usec = line.contains("usec") ? line["usec"] : nlohmann::json(0);
    if (!sec.is_number_unsigned() || !usec.is_number_unsigned() ||
        sec.get<uint64_t>() > UINT32_MAX || usec.get<uint64_t>() > StoreTime::kMaxUsec) {
        return "\"sec\" must be 0 to 4294967295 and \"usec\" 0 to 999999";
    }
    time = StoreTime{uint32_t(sec.get<uint64_t>()), uint32_t(usec.get<uint64_t>())};
    return storable(*time);
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
        std::optional<StoreTime> time;
        std::string why = jsonTime(parsed, time);
        if (why.empty() && (!parsed.contains("document") || !parsed["document"].is_string())) {
            why = "\"document\" must be a string";
        }
        if (!why.empty()) {
            problem(where, why);
            continue;
        }
        addDocument(where, *time, parsed["document"].get<std::string>());
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
        std::string file = path;
        file += '/';
        file += name;
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
        std::optional<StoreTime> time;
        const std::string why = timeProblem(name.substr(0, name.size() - 4), time);
        if (why.empty()) {
            addDocument(file, *time, body.str());
        } else {
            problem(file, why);
        }
    }
}

}  // namespace store
