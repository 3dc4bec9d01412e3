// recording_store: stands in for the device's recording services, answering from a
// recording kept in an SQLite file, and makes or loads such recordings.
#include <cstdio>
#include <exception>

#include <CLI/CLI.hpp>

#include "store/StoreCommands.h"
#include "store/StoreDaemon.h"

namespace {

// Turns a text option into a value through one of the parsers, with a one-line error.
template <typename T>
CLI::Option* addParsed(CLI::App* app, const std::string& name, T& target,
                       bool (*parse)(const std::string&, T&), const std::string& help)
{
    return app->add_option_function<std::string>(
        name,
        [&target, parse, name](const std::string& text) {
            if (!parse(text, target))
                throw CLI::ValidationError(name, "cannot read \"" + text + "\"");
        },
        help);
}

}  // namespace

namespace {

int run(int argc, char** argv)
{
    CLI::App app{
        "Stand-in for the recording services, answering from a recording in an SQLite file"};
    app.require_subcommand(1);
    std::string path;

    CLI::App* serve = app.add_subcommand("serve", "Answer the three recording services on the bus");
    serve->add_option("FILE", path, "The recording")->required();

    CLI::App* generate = app.add_subcommand("generate", "Write a sample recording");
    generate->add_option("FILE", path, "The recording to write")->required();
    store::SampleOptions options;
    bool force = false;
    generate->add_option("--seed", options.seed, "The same seed gives the same recording")
        ->capture_default_str();
    addParsed(generate, "--start", options.start, &store::parseStartTime,
              "Start time, SECONDS[.MICROSECONDS] or YYYY-MM-DDTHH:MM:SS[.ffffff]Z "
              "(2024-01-01T00:00:00Z)");
    addParsed(generate, "--duration", options.durationSeconds, &store::parseDuration,
              "Length: seconds, or with a unit ms, s, m, h, d (1h)");
    generate->add_option("--video-tracks", options.videoTracks, "VIDEO001...")
        ->capture_default_str();
    generate->add_option("--audio-tracks", options.audioTracks, "AUDIO001...")
        ->capture_default_str();
    generate->add_option("--rate", options.documentsPerSecond, "Metadata documents a second")
        ->capture_default_str();
    generate
        ->add_option("--recording-on", options.recordingOnSeconds,
                     "Mean seconds the recording stays on")
        ->capture_default_str();
    generate
        ->add_option("--recording-off", options.recordingOffSeconds, "Mean seconds it stays off")
        ->capture_default_str();
    generate->add_option("--track-on", options.trackOnSeconds, "Mean seconds a track stays on")
        ->capture_default_str();
    generate->add_option("--track-off", options.trackOffSeconds, "Mean seconds a track stays off")
        ->capture_default_str();
    generate
        ->add_option("--objects-per-minute", options.objectsPerMinute, "Objects entering the scene")
        ->capture_default_str();
    generate->add_option("--object-seconds", options.objectSeconds, "Mean seconds an object stays")
        ->capture_default_str();
    addParsed(generate, "--mix", options.classMix, &store::parseClassMix,
              "Object class weights (Person=40,Vehicle=30,Bicycle=10,Animal=20)");
    bool append = false;
    generate->add_flag("--force", force, "Replace FILE if it exists");
    generate
        ->add_flag("--append", append,
                   "Extend FILE from its end by --duration, while it may be served")
        ->excludes("--force")
        ->excludes("--start");

    CLI::App* import = app.add_subcommand("import", "Load history events and metadata documents");
    import->add_option("FILE", path, "The recording to load into (made when missing)")->required();
    store::ImportSources sources;
    import->add_option("--events", sources.eventFiles, "CSV: time,key,value[,track]");
    import->add_option("--documents", sources.documentFiles,
                       "JSON lines: {\"time\": ..., \"document\": ...}");
    import->add_option("--document-dir", sources.documentDirectories,
                       "Files named TIME.xml (SECONDS[.MICROSECONDS] or ISO 8601 UTC)");
    import->add_option("--track", sources.tracks, "A track to declare");

    CLI11_PARSE(app, argc, argv);

    if (*serve) return store::StoreDaemon(path).run();
    if (*generate && append) return store::appendCommand(path, options);
    if (*generate) return store::generateCommand(path, options, force);
    if (sources.eventFiles.empty() && sources.documentFiles.empty() &&
        sources.documentDirectories.empty() && sources.tracks.empty()) {
        std::fprintf(
            stderr,
            "recording_store: import needs --events, --documents, --document-dir or --track\n");
        return 1;
    }
    return store::importCommand(path, sources);
}

}  // namespace

int main(int argc, char** argv)
{
    try {
        return run(argc, argv);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "recording_store: %s\n", e.what());
        return 1;
    }
}
