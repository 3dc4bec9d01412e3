#include "store/SampleGenerator.h"

#include <algorithm>
#include <cmath>
#include <random>

#include "kavro/contract.h"
#include "store/AnalyticsFrame.h"
#include "store/RecordingSchema.h"
#include "store/RecordingWriter.h"
#include "store/StoreError.h"

namespace store {

namespace {

constexpr int64_t kUsecPerSec = 1000000;

// std::mt19937_64's output is fixed by the standard; the standard distributions are not,
// so the few we need are written out here to keep a seed's recording the same everywhere.
class Random {
public:
    explicit Random(uint64_t seed) : engine_(seed) {}
    double uniform() { return double(engine_() >> 11) * 0x1.0p-53; }
    double between(double low, double high) { return low + (high - low) * uniform(); }
    double exponential(double mean) { return -mean * std::log1p(-uniform()); }
    bool chance(double p) { return uniform() < p; }
    template <typename T>
    const T& pick(const std::vector<std::pair<T, double>>& weighted)
    {
        double total = 0;
        for (const auto& entry : weighted) total += entry.second;
        double x = uniform() * total;
        for (const auto& entry : weighted) {
            if (x < entry.second) return entry.first;
            x -= entry.second;
        }
        return weighted.back().first;
    }

private:
    std::mt19937_64 engine_;
};

struct Switch {
    int64_t t;
    int stream;  // -1 the recording, else an index into the track list
    bool on;
};

struct Timeline {
    std::vector<std::string> tracks;
    std::vector<std::pair<int64_t, std::vector<EventProperty>>> events;  // ascending, distinct
};

// One stream's switches after the initial "on" at start: alternating off and on.
void addSwitches(std::vector<Switch>& out, int stream, Random& random, int64_t start, int64_t end,
                 double onMean, double offMean)
{
    int64_t t = start;
    bool on = true;
    while (true) {
        const double seconds = random.exponential(on ? onMean : offMean);
        t += std::max<int64_t>(1, int64_t(seconds * kUsecPerSec));
        if (t >= end) return;
        on = !on;
        out.push_back(Switch{t, stream, on});
    }
}

EventProperty propertyOf(const Timeline& timeline, int stream, bool on)
{
    if (stream < 0) return EventProperty{0, on ? 1u : 0u, ""};
    return EventProperty{1, on ? 1u : 0u, timeline.tracks[size_t(stream)]};
}

std::vector<std::string> trackNames(const SampleOptions& options)
{
    std::vector<std::string> names;
    char name[32];
    for (unsigned i = 1; i <= options.videoTracks; ++i) {
        std::snprintf(name, sizeof name, "VIDEO%03u", i);
        names.emplace_back(name);
    }
    for (unsigned i = 1; i <= options.audioTracks; ++i) {
        std::snprintf(name, sizeof name, "AUDIO%03u", i);
        names.emplace_back(name);
    }
    names.emplace_back(schema::kMetadataTrack);
    return names;
}

Timeline makeTimeline(const SampleOptions& options, int64_t start, int64_t end)
{
    Timeline timeline;
    timeline.tracks = trackNames(options);
    std::vector<Switch> switches;
    Random recordingRandom(options.seed * 1000003 + 1);
    addSwitches(switches, -1, recordingRandom, start, end, options.recordingOnSeconds,
                options.recordingOffSeconds);
    for (size_t i = 0; i < timeline.tracks.size(); ++i) {
        Random trackRandom(options.seed * 1000003 + 2 + i);
        addSwitches(switches, int(i), trackRandom, start, end, options.trackOnSeconds,
                    options.trackOffSeconds);
    }
    std::stable_sort(switches.begin(), switches.end(),
                     [](const Switch& a, const Switch& b) { return a.t < b.t; });

    // Everything starts on together, and whatever is on is switched off together at the end.
    std::vector<bool> on(timeline.tracks.size() + 1, true);
    std::vector<EventProperty> first{propertyOf(timeline, -1, true)};
    for (size_t i = 0; i < timeline.tracks.size(); ++i)
        first.push_back(propertyOf(timeline, int(i), true));
    timeline.events.emplace_back(start, std::move(first));
    for (const Switch& change : switches) {
        // Distinct times keep one event per position on the timeline.
        const int64_t t = std::max(change.t, timeline.events.back().first + 1);
        if (t >= end) break;
        on[size_t(change.stream) + 1] = change.on;
        timeline.events.emplace_back(
            t, std::vector<EventProperty>{propertyOf(timeline, change.stream, change.on)});
    }
    std::vector<EventProperty> last;
    for (size_t i = 0; i < on.size(); ++i) {
        if (on[i]) last.push_back(propertyOf(timeline, int(i) - 1, false));
    }
    if (!last.empty()) timeline.events.emplace_back(end, std::move(last));
    return timeline;
}

// Follows the timeline forward: is the metadata track being recorded at t?
class RecordingCursor {
public:
    explicit RecordingCursor(const Timeline& timeline) : timeline_(timeline) {}

    bool recordingMetadata(int64_t t)
    {
        while (next_ < timeline_.events.size() && timeline_.events[next_].first <= t) {
            for (const EventProperty& property : timeline_.events[next_].second) {
                if (property.key == kavro::contract::kRecordingKey)
                    recording_ = property.value != 0;
                if (property.key == kavro::contract::kTrackKey &&
                    property.name == schema::kMetadataTrack) {
                    metadata_ = property.value != 0;
                }
            }
            ++next_;
        }
        return recording_ && metadata_;
    }

private:
    const Timeline& timeline_;
    size_t next_ = 0;
    bool recording_ = false;
    bool metadata_ = false;
};

struct SceneObject {
    DetectedObject looks;
    int64_t born = 0;
    int64_t leaves = 0;
    double x = 0, y = 0;    // centre at birth
    double vx = 0, vy = 0;  // per second
    double baseLikelihood = 0;
};

struct ClassShape {
    double minWidth, maxWidth, minHeight, maxHeight, minSpeed, maxSpeed;
};

ClassShape shapeOf(const std::string& type)
{
    if (type == "Person") return {0.04, 0.09, 0.15, 0.32, 0.02, 0.06};
    if (type == "Vehicle") return {0.15, 0.32, 0.10, 0.22, 0.05, 0.20};
    if (type == "Bicycle") return {0.06, 0.11, 0.10, 0.18, 0.04, 0.10};
    return {0.04, 0.10, 0.04, 0.09, 0.02, 0.08};
}

const std::vector<std::pair<std::string, double>> kColours{
    {"black", 20}, {"white", 20}, {"grey", 14},  {"silver", 8}, {"blue", 12},
    {"red", 12},   {"green", 7},  {"yellow", 5}, {"brown", 2}};
const std::vector<std::pair<std::string, double>> kVehicleTypes{
    {"Car", 70}, {"Truck", 12}, {"Bus", 6}, {"Motorcycle", 12}};

// The camera's motion detector misses slow movement (image widths per second).
constexpr double kMotionSpeed = 0.04;

// The scene in front of the camera: objects arrive as a Poisson process, move in straight
// lines (a third of them stand still) and leave after an exponential time.
class Scene {
public:
    Scene(const SampleOptions& options, int64_t start)
        : random_(options.seed * 1000003 + 999),
          arrivalMean_(60.0 / options.objectsPerMinute),
          lifeMean_(options.objectSeconds)
    {
        for (const auto& [type, weight] : options.classMix) classes_.emplace_back(type, weight);
        nextArrival_ = start + int64_t(random_.exponential(arrivalMean_) * kUsecPerSec);
    }

    void advanceTo(int64_t t)
    {
        objects_.erase(std::remove_if(objects_.begin(), objects_.end(),
                                      [t](const SceneObject& o) { return o.leaves <= t; }),
                       objects_.end());
        while (nextArrival_ <= t) {
            objects_.push_back(spawn(nextArrival_));
            nextArrival_ +=
                std::max<int64_t>(1, int64_t(random_.exponential(arrivalMean_) * kUsecPerSec));
        }
        objects_.erase(std::remove_if(objects_.begin(), objects_.end(),
                                      [t](const SceneObject& o) { return o.leaves <= t; }),
                       objects_.end());
    }

    void describe(AnalyticsFrame& frame, int64_t t)
    {
        frame.motion = false;
        frame.objects.clear();
        for (const SceneObject& object : objects_) {
            frame.objects.push_back(placed(object, t));
            frame.motion = frame.motion || object.looks.speed >= kMotionSpeed;
        }
    }

private:
    SceneObject spawn(int64_t born)
    {
        SceneObject object;
        DetectedObject& looks = object.looks;
        looks.id = ++lastId_;
        looks.type = random_.pick(classes_);
        const ClassShape shape = shapeOf(looks.type);
        if (looks.type == "Vehicle") looks.vehicleType = random_.pick(kVehicleTypes);
        looks.colour = random_.pick(kColours);
        looks.colourLikelihood = random_.between(0.45, 0.95);
        const double width = random_.between(shape.minWidth, shape.maxWidth);
        const double height = random_.between(shape.minHeight, shape.maxHeight);
        looks.right = width;  // size only; placed() positions the box
        looks.bottom = height;
        const bool still = random_.chance(0.35);
        looks.speed = still ? 0 : random_.between(shape.minSpeed, shape.maxSpeed);
        looks.yaw = random_.between(0, 360);
        object.vx = looks.speed * std::cos(looks.yaw * M_PI / 180);
        object.vy = looks.speed * std::sin(looks.yaw * M_PI / 180);
        object.x = random_.between(width / 2, 1 - width / 2);
        object.y = random_.between(height / 2, 1 - height / 2);
        object.baseLikelihood = random_.between(0.5, 0.97);
        object.born = born;
        object.leaves =
            born + std::max<int64_t>(1, int64_t(random_.exponential(lifeMean_) * kUsecPerSec));
        return object;
    }

    DetectedObject placed(const SceneObject& object, int64_t t)
    {
        DetectedObject looks = object.looks;
        const double width = looks.right, height = looks.bottom;
        const double age = double(t - object.born) / kUsecPerSec;
        const double x = bounce(object.x + object.vx * age, width / 2);
        const double y = bounce(object.y + object.vy * age, height / 2);
        looks.left = x - width / 2;
        looks.right = x + width / 2;
        looks.top = y - height / 2;
        looks.bottom = y + height / 2;
        looks.typeLikelihood =
            std::clamp(object.baseLikelihood + random_.between(-0.03, 0.03), 0.30, 0.99);
        return looks;
    }

    // Folds a coordinate back into [half, 1 - half], as if the object turned at the edge.
    static double bounce(double v, double half)
    {
        const double span = 1 - 2 * half;
        double u = std::fmod(std::fabs(v - half), 2 * span);
        if (u > span) u = 2 * span - u;
        return half + u;
    }

    Random random_;
    std::vector<std::pair<std::string, double>> classes_;
    double arrivalMean_;
    double lifeMean_;
    int64_t nextArrival_ = 0;
    uint32_t lastId_ = 0;
    std::vector<SceneObject> objects_;
};

}  // namespace

std::string SampleOptions::validate() const
{
    auto positive = [](double v) { return std::isfinite(v) && v > 0; };
    if (!positive(durationSeconds) || durationSeconds > 366.0 * 86400) {
        return "duration must be above 0 and at most a year";
    }
    if (start.isNone() || start.usec > StoreTime::kMaxUsec) return "start must be a time after 0.0";
    if (uint64_t(start.sec) + uint64_t(durationSeconds) + 1 > UINT32_MAX) {
        return "the recording must end before 2106";
    }
    if (videoTracks < 1 || videoTracks > 99 || audioTracks > 99) {
        return "1 to 99 video tracks and 0 to 99 audio tracks";
    }
    if (!positive(documentsPerSecond) || documentsPerSecond > 1000) {
        return "documents per second must be above 0 and at most 1000";
    }
    for (double mean : {recordingOnSeconds, recordingOffSeconds, trackOnSeconds, trackOffSeconds,
                        objectsPerMinute, objectSeconds}) {
        if (!positive(mean)) return "on/off periods and scene rates must be above 0";
    }
    double total = 0;
    for (const auto& [type, weight] : classMix) {
        const auto& known = SampleGenerator::knownClasses();
        if (std::find(known.begin(), known.end(), type) == known.end()) {
            return "unknown object class \"" + type + "\" (Person, Vehicle, Bicycle, Animal)";
        }
        if (!std::isfinite(weight) || weight < 0) return "class weights must not be negative";
        total += weight;
    }
    if (!(total > 0)) return "at least one object class needs a weight above 0";
    return "";
}

const std::vector<std::string>& SampleGenerator::knownClasses()
{
    static const std::vector<std::string> classes{"Person", "Vehicle", "Bicycle", "Animal"};
    return classes;
}

SampleGenerator::SampleGenerator(SampleOptions options) : options_(std::move(options))
{
    const std::string problem = options_.validate();
    if (!problem.empty()) throw StoreError(problem);
}

SampleSummary SampleGenerator::generate(RecordingWriter& writer,
                                        const std::function<void(double)>& progress)
{
    const int64_t start = options_.start.key();
    const int64_t end = start + int64_t(options_.durationSeconds * kUsecPerSec);
    const Timeline timeline = makeTimeline(options_, start, end);

    auto transaction = writer.transaction();
    SampleSummary summary;
    summary.tracks = timeline.tracks;
    for (const std::string& track : timeline.tracks) writer.addTrack(track);
    for (const auto& [t, properties] : timeline.events)
        writer.addEvent(StoreTime::fromKey(t), properties);
    summary.events = timeline.events.size();

    const int64_t interval =
        std::max<int64_t>(1, int64_t(kUsecPerSec / options_.documentsPerSecond));
    Random jitter(options_.seed * 1000003);
    RecordingCursor cursor(timeline);
    Scene scene(options_, start);
    AnalyticsFrame frame;
    frame.source = timeline.tracks.front();
    int64_t lastDocument = 0;
    for (int64_t slot = start; slot < end; slot += interval) {
        const int64_t t = slot + int64_t(jitter.uniform() * double(interval) / 4);
        if (t >= end || !cursor.recordingMetadata(t)) continue;
        scene.advanceTo(t);
        frame.time = StoreTime::fromKey(t);
        frame.sequence = uint64_t((slot - start) / interval);
        const double minutes = double(t - start) / (60.0 * kUsecPerSec);
        frame.pan = 0.3 * std::sin(minutes / 7);
        frame.tilt = -0.1 + 0.05 * std::cos(minutes / 5);
        frame.zoom = 0.25;
        scene.describe(frame, t);
        const std::string body = renderFrame(frame);
        writer.addDocument(frame.time, body);
        summary.documentBytes += body.size();
        ++summary.documents;
        lastDocument = t;
        if (progress && summary.documents % 4096 == 0)
            progress(double(t - start) / double(end - start));
    }
    transaction->commit();
    if (progress) progress(1.0);

    summary.first = StoreTime::fromKey(start);  // the first event switches everything on
    summary.last = StoreTime::fromKey(std::max(timeline.events.back().first, lastDocument));
    return summary;
}

}  // namespace store
