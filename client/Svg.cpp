#include "client/Svg.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <vector>

namespace rsclient {

namespace {

using std::chrono::seconds;

constexpr const char* kOnColour = "#2e7d32";
constexpr const char* kMatchColour = "#d84315";
constexpr const char* kOffColour = "#dcdcdc";
constexpr const char* kUnknownColour = "#f1e2b8";
constexpr std::size_t kLabelChars = 20;

}  // namespace

// Valid UTF-8 without control characters: what a label can show.
std::string sanitized(const std::string& text)
{
    static const std::string kReplacement = "\xEF\xBF\xBD";
    std::string out;
    const auto* s = reinterpret_cast<const unsigned char*>(text.data());
    const std::size_t n = text.size();
    for (std::size_t i = 0; i < n;) {
        const unsigned char c = s[i];
        if (c < 0x80) {
            out += (c < 0x20 || c == 0x7f) ? kReplacement : std::string(1, char(c));
            ++i;
            continue;
        }
        const std::size_t length = c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : c >= 0xC2 ? 2 : 0;
        uint32_t code = length == 4 ? c & 0x07u : length == 3 ? c & 0x0Fu : c & 0x1Fu;
        bool valid = length != 0 && c <= 0xF4 && i + length <= n;
        for (std::size_t k = 1; valid && k < length; ++k) {
            valid = (s[i + k] & 0xC0) == 0x80;
            code = (code << 6) | (s[i + k] & 0x3Fu);
        }
        const uint32_t least = length == 4 ? 0x10000 : length == 3 ? 0x800 : 0x80;
        valid = valid && code >= least && code <= 0x10FFFF && (code < 0xD800 || code > 0xDFFF) &&
                code != 0xFFFE && code != 0xFFFF;
        if (valid) {
            out.append(text, i, length);
            i += length;
        } else {
            out += kReplacement;
            ++i;
        }
    }
    return out;
}

// At most `limit` characters of sanitized text, with an ellipsis when cut.
std::string shortened(const std::string& text, std::size_t limit)
{
    std::size_t chars = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if ((static_cast<unsigned char>(text[i]) & 0xC0) == 0x80) continue;
        if (++chars == limit) return text.substr(0, i) + "\xE2\x80\xA6";
    }
    return text;
}

std::size_t charCount(const std::string& text)
{
    return std::size_t(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    }));
}

std::string escaped(const std::string& text)
{
    std::string out;
    for (char c : text) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '"': out += "&quot;"; break;
        case '\'': out += "&apos;"; break;
        default: out += c;
        }
    }
    return out;
}

std::string utcText(Micros t, const char* format)
{
    const std::time_t sec = std::chrono::duration_cast<seconds>(t).count();
    std::tm tm{};
    gmtime_r(&sec, &tm);
    char text[40];
    std::strftime(text, sizeof text, format, &tm);
    return text;
}

namespace {

std::string number(double v)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.2f", v);
    return text;
}

void rect(std::ostream& out, double x0, double x1, double y, const std::string& fill)
{
    out << "<rect x=\"" << number(x0) << "\" y=\"" << number(y) << "\" width=\"" << number(x1 - x0)
        << "\" height=\"" << number(SvgLayout::kRowHeight) << "\" fill=\"" << fill << "\"/>\n";
}

// Pieces closer than a pixel are drawn as one, which bounds the file's size; marks of no
// length still get a pixel.
void drawMerged(std::ostream& out, const Picture& p, const Row& row, State state, double y,
                const std::string& fill)
{
    std::vector<std::pair<double, double>> pieces;
    for (const auto& s : row.segments) {
        if (s.state != state) continue;
        double x0 = SvgLayout::x(p, s.from), x1 = SvgLayout::x(p, s.to);
        if (x1 - x0 < 1) {
            x0 = std::max(SvgLayout::kPlotLeft, (x0 + x1) / 2 - 0.5);
            x1 = std::min(SvgLayout::kPlotRight, x0 + 1);
        }
        pieces.emplace_back(x0, x1);
    }
    std::sort(pieces.begin(), pieces.end());
    for (std::size_t i = 0; i < pieces.size();) {
        auto [x0, x1] = pieces[i];
        for (++i; i < pieces.size() && pieces[i].first <= x1 + 0.5; ++i) {
            x1 = std::max(x1, pieces[i].second);
        }
        rect(out, x0, x1, y, fill);
    }
}

// A round step that gives the axis at most eight labels.
seconds tickStep(Micros range)
{
    static const int64_t kSteps[] = {1,     2,     5,     10,    15,     30,     60,
                                     120,   300,   600,   900,   1800,   3600,   7200,
                                     10800, 21600, 43200, 86400, 172800, 604800, 2592000};
    for (int64_t s : kSteps) {
        if (seconds(s) * 8 >= range) return seconds(s);
    }
    return seconds(31536000);
}

// "UTC", or "UTC-05:00" for a zone five hours west.
std::string zoneText(Micros offset)
{
    const int64_t minutes = std::chrono::duration_cast<std::chrono::minutes>(offset).count();
    if (minutes == 0) return "UTC";
    char text[48];
    std::snprintf(text, sizeof text, "UTC%c%02lld:%02lld", minutes < 0 ? '-' : '+',
                  static_cast<long long>(std::llabs(minutes) / 60),
                  static_cast<long long>(std::llabs(minutes) % 60));
    return text;
}

void drawAxis(std::ostream& out, const Picture& p, double y, Micros offset)
{
    const double left = SvgLayout::kPlotLeft, right = SvgLayout::kPlotRight;
    out << "<line x1=\"" << left << "\" y1=\"" << y << "\" x2=\"" << right << "\" y2=\"" << y
        << "\" stroke=\"#444\"/>\n";
    const seconds step = tickStep(p.to - p.from);
    const char* format = step >= seconds(86400)             ? "%Y-%m-%d"
                         : step % seconds(60) == seconds(0) ? "%H:%M"
                                                            : "%H:%M:%S";
    std::string lastDate;
    // Ticks on the zone's round times: counted in its clock, drawn at their instants.
    Micros local = (p.from + offset + step - Micros(1)) / step * step;
    for (; local - offset <= p.to; local += step) {
        const Micros t = local - offset;
        const double x = SvgLayout::x(p, t);
        out << "<line x1=\"" << number(x) << "\" y1=\"" << y << "\" x2=\"" << number(x)
            << "\" y2=\"" << y + 5 << "\" stroke=\"#444\"/>\n";
        out << "<text x=\"" << number(x) << "\" y=\"" << y + 18 << "\" text-anchor=\"middle\">"
            << utcText(local, format) << "</text>\n";
        const std::string date = utcText(local, "%Y-%m-%d");
        if (date != lastDate && step < seconds(86400)) {
            out << "<text x=\"" << number(x) << "\" y=\"" << y + 32
                << "\" text-anchor=\"middle\" fill=\"#666\">" << date << "</text>\n";
        }
        lastDate = date;
    }
    out << "<text x=\"" << right << "\" y=\"" << y + 46 << "\" text-anchor=\"end\" fill=\"#666\">"
        << zoneText(offset) << "</text>\n";
}

void drawLegend(std::ostream& out, const Picture& p, double y)
{
    const std::pair<std::string, std::string> entries[] = {
        {p.metadata ? kMatchColour : kOnColour, p.metadata ? "match" : "on"},
        {kOffColour, p.metadata ? "no match" : "off"},
        {kUnknownColour, p.metadata ? "not searched" : "unknown"}};
    double x = SvgLayout::kPlotLeft;
    for (const auto& [fill, label] : entries) {
        out << "<rect x=\"" << x << "\" y=\"" << y - 10 << "\" width=\"12\" height=\"12\" fill=\""
            << fill << "\" stroke=\"#888\"/>\n";
        out << "<text x=\"" << x + 18 << "\" y=\"" << y << "\">" << label << "</text>\n";
        x += 130;
    }
}

}  // namespace

double SvgLayout::x(const Picture& p, Micros t)
{
    const double span = double(std::max(Micros(1), p.to - p.from).count());
    const double share = std::clamp(double((t - p.from).count()) / span, 0.0, 1.0);
    return kPlotLeft + share * (kPlotRight - kPlotLeft);
}

std::string xmlText(const std::string& text) { return escaped(sanitized(text)); }

void writeSvg(std::ostream& out, const Picture& p, const std::string& title, Micros utcOffset)
{
    const double axisY = SvgLayout::rowTop(p.rows.size()) + 4;
    const double height = axisY + 80;
    out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << SvgLayout::kWidth
        << "\" height=\"" << height << "\" viewBox=\"0 0 " << SvgLayout::kWidth << ' ' << height
        << "\" font-family=\"sans-serif\" font-size=\"12\">\n"
        << "<rect width=\"100%\" height=\"100%\" fill=\"#ffffff\"/>\n"
        << "<text x=\"10\" y=\"20\" font-size=\"14\" font-weight=\"bold\">" << xmlText(title)
        << "</text>\n"
        << "<text x=\"10\" y=\"38\" fill=\"#444\">" << utcText(p.from, "%Y-%m-%dT%H:%M:%SZ")
        << " to " << utcText(p.to, "%Y-%m-%dT%H:%M:%SZ") << "</text>\n";
    for (std::size_t i = 0; i < p.rows.size(); ++i) {
        const Row& row = p.rows[i];
        const double y = SvgLayout::rowTop(i);
        out << "<g class=\"row\"><title>" << xmlText(row.name) << "</title>\n"
            << "<text x=\"" << SvgLayout::kPlotLeft - 8 << "\" y=\"" << y + 14
            << "\" text-anchor=\"end\">" << escaped(shortened(sanitized(row.name), kLabelChars))
            << "</text>\n";
        rect(out, SvgLayout::kPlotLeft, SvgLayout::kPlotRight, y, kOffColour);
        drawMerged(out, p, row, State::Unknown, y, kUnknownColour);
        drawMerged(out, p, row, State::On, y, p.metadata ? kMatchColour : kOnColour);
        out << "</g>\n";
    }
    drawAxis(out, p, axisY, utcOffset);
    drawLegend(out, p, axisY + 64);
    out << "</svg>\n";
}

}  // namespace rsclient
