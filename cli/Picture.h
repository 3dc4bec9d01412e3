// A search's rows drawn as a standalone SVG file or as block characters in a terminal.
#pragma once

#include <cstddef>
#include <ostream>
#include <string>

#include "Timeline.h"

namespace recsearch {

// Where the SVG puts things, in pixels (the SVG's user units).
struct SvgLayout {
    static constexpr double kWidth = 1000;
    static constexpr double kPlotLeft = 160;
    static constexpr double kPlotRight = 970;
    static constexpr double kFirstRowTop = 50;
    static constexpr double kRowHeight = 20;
    static constexpr double kRowPitch = 28;

    static double rowTop(std::size_t row) { return kFirstRowTop + double(row) * kRowPitch; }
    static double x(const Picture& picture, Micros t);
};

// Every text in it is escaped; `title` says what was searched.
void writeSvg(std::ostream& out, const Picture& picture, const std::string& title);

// One line per row scaled to `columns`, a time line and a legend; plain ASCII unless `utf8`.
void drawTimeline(std::ostream& out, const Picture& picture, std::size_t columns, bool utf8);

// For text that goes into XML: markup characters escaped, control characters and bytes that
// are not UTF-8 replaced, so that the file always parses.
std::string xmlText(const std::string& text);

}  // namespace recsearch
