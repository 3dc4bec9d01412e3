#include "store/AnalyticsFrame.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <ctime>

namespace store {

namespace {

void appendf(std::string& out, const char* format, ...) __attribute__((format(printf, 2, 3)));

void appendf(std::string& out, const char* format, ...)
{
    char buffer[512];
    va_list args;
    va_start(args, format);
    const int length = std::vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
    if (length > 0) out.append(buffer, std::min<size_t>(size_t(length), sizeof buffer - 1));
}

std::string utcTime(StoreTime time)
{
    const time_t seconds = time.sec;
    tm parts{};
    gmtime_r(&seconds, &parts);
    char text[48];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%06uZ", parts.tm_year + 1900,
                  parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec,
                  time.usec);
    return text;
}

void renderObject(std::string& out, const DetectedObject& object)
{
    appendf(out, "<Object ObjectId=\"%u\"><Appearance><Shape>", object.id);
    appendf(out, "<BoundingBox left=\"%.3f\" top=\"%.3f\" right=\"%.3f\" bottom=\"%.3f\"/>",
            object.left, object.top, object.right, object.bottom);
    appendf(out, "<CenterOfGravity x=\"%.3f\" y=\"%.3f\"/></Shape>",
            (object.left + object.right) / 2, (object.top + object.bottom) / 2);
    appendf(out, "<Class><Type Likelihood=\"%.2f\">%s</Type></Class>", object.typeLikelihood,
            object.type.c_str());
    if (!object.vehicleType.empty()) {
        appendf(out, "<VehicleInfo Type=\"%s\" Likelihood=\"%.2f\"/>", object.vehicleType.c_str(),
                object.typeLikelihood);
    }
    appendf(out, "<Color><ColorCluster Name=\"%s\" Likelihood=\"%.2f\"/></Color></Appearance>",
            object.colour.c_str(), object.colourLikelihood);
    appendf(out, "<Behaviour><Speed>%.3f</Speed><Direction Yaw=\"%.1f\"/></Behaviour></Object>",
            object.speed, object.yaw);
}

}  // namespace

std::string renderFrame(const AnalyticsFrame& frame)
{
    const std::string when = utcTime(frame.time);
    std::string out;
    out.reserve(1600);
    out += "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<MetadataStream Version=\"1.0\">";
    appendf(out, "<PTZ><PTZStatus UtcTime=\"%s\"><Position><PanTilt x=\"%.3f\" y=\"%.3f\"/>",
            when.c_str(), frame.pan, frame.tilt);
    appendf(out, "<Zoom x=\"%.3f\"/></Position><MoveStatus PanTilt=\"IDLE\" Zoom=\"IDLE\"/>",
            frame.zoom);
    out += "</PTZStatus></PTZ><VideoAnalytics>";
    appendf(out, "<Frame UtcTime=\"%s\" Source=\"%s\" Sequence=\"%llu\" ObjectCount=\"%zu\">",
            when.c_str(), frame.source.c_str(), static_cast<unsigned long long>(frame.sequence),
            frame.objects.size());
    out +=
        "<Transformation><Translate x=\"-1.0\" y=\"-1.0\"/>"
        "<Scale x=\"0.001042\" y=\"0.001852\"/></Transformation>";
    for (const DetectedObject& object : frame.objects) renderObject(out, object);
    out += "</Frame></VideoAnalytics><Event>";
    appendf(out, "<NotificationMessage Topic=\"VideoSource/MotionAlarm\" UtcTime=\"%s\">",
            when.c_str());
    appendf(out, "<Source><SimpleItem Name=\"VideoSource\" Value=\"%s\"/></Source>",
            frame.source.c_str());
    appendf(out, "<Data><SimpleItem Name=\"State\" Value=\"%s\"/></Data></NotificationMessage>",
            frame.motion ? "true" : "false");
    out += "</Event></MetadataStream>\n";
    return out;
}

}  // namespace store
