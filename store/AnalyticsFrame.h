// One metadata document as a camera's video analytics writes it: a frame of detected
// objects plus the PTZ position and the motion state. The XML vocabulary is described in
// store/README.md; queries are written against it, so renaming anything here breaks them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "store/StoreTime.h"

namespace store {

struct DetectedObject {
    uint32_t id = 0;
    std::string type;  // "Person", "Vehicle", "Bicycle", "Animal"
    double typeLikelihood = 0;
    std::string vehicleType;  // "Car", "Truck", ... for a vehicle, else empty
    std::string colour;       // "red", "blue", ...
    double colourLikelihood = 0;
    // Normalised image coordinates, 0..1, top left origin.
    double left = 0, top = 0, right = 0, bottom = 0;
    double speed = 0;  // image widths per second
    double yaw = 0;    // degrees
};

struct AnalyticsFrame {
    StoreTime time;
    std::string source;  // the video track the analytics ran on
    uint64_t sequence = 0;
    double pan = 0, tilt = 0, zoom = 0;
    bool motion = false;
    std::vector<DetectedObject> objects;
};

std::string renderFrame(const AnalyticsFrame& frame);

}  // namespace store
