// The `generate` and `import` commands: each returns the process's exit status and writes
// its errors to standard error, one line each.
#pragma once

#include <string>

#include "store/Importer.h"
#include "store/SampleGenerator.h"

namespace store {

int generateCommand(const std::string& path, const SampleOptions& options, bool overwrite);
// Extends the recording from its end by options' duration (its start is ignored): a stretch
// that is a sample of its own, everything switched on at its start and off at its end.
int appendCommand(const std::string& path, SampleOptions options);
int importCommand(const std::string& path, const ImportSources& sources);

// A time as StoreTime::parse reads it.
bool parseStartTime(const std::string& text, StoreTime& time);
// A number of seconds, optionally with a unit: "90", "90s", "15m", "2h", "1d".
bool parseDuration(const std::string& text, double& seconds);
// "Person=40,Vehicle=30": class names as SampleGenerator::knownClasses(), any case.
bool parseClassMix(const std::string& text, std::map<std::string, double>& mix);

}  // namespace store
