// A search's rows drawn as a standalone SVG file, and the text rules of its labels.
#pragma once

#include <cstddef>
#include <ostream>
#include <string>

#include "client/Picture.h"

namespace rsclient {

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

// Every text in it is escaped; `title` says what was searched. The axis is labelled in the
// zone `utcOffset` east of UTC (the offset at the picture's start), and says which.
void writeSvg(std::ostream& out, const Picture& picture, const std::string& title,
              Micros utcOffset = Micros{0});

// Valid UTF-8 without control characters: what a label can show.
std::string sanitized(const std::string& text);
// At most `limit` characters of sanitized text, with an ellipsis when cut.
std::string shortened(const std::string& text, std::size_t limit);
std::size_t charCount(const std::string& text);     // of UTF-8 text
std::string utcText(Micros t, const char* format);  // strftime in UTC

// For text that goes into XML: markup characters escaped, control characters and bytes that
// are not UTF-8 replaced, so that the file always parses.
std::string xmlText(const std::string& text);

}  // namespace rsclient
