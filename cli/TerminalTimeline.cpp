#include "TerminalTimeline.h"

#include <algorithm>
#include <vector>

#include "client/Svg.h"

namespace recsearch {

namespace {

constexpr std::size_t kLabelChars = 20;

}  // namespace

void drawTimeline(std::ostream& out, const Picture& p, std::size_t columns, bool utf8)
{
    std::size_t labelWidth = 0;
    std::vector<std::string> labels;
    for (const auto& row : p.rows) {
        labels.push_back(shortened(sanitized(row.name), kLabelChars));
        if (!utf8) {
            std::string ascii;
            for (std::size_t i = 0; i < labels.back().size(); ++i) {
                const auto c = static_cast<unsigned char>(labels.back()[i]);
                if (c < 0x80) ascii += char(c);
                if (c >= 0xC0) ascii += '?';
            }
            labels.back() = ascii;
        }
        labelWidth = std::max(labelWidth, charCount(labels.back()));
    }
    const std::size_t room = columns - std::min(columns, labelWidth + 2);
    const std::size_t cells = std::max<std::size_t>(10, room);
    const double span = double(std::max(Micros(1), p.to - p.from).count());
    auto offset = [&](Micros t) { return double((t - p.from).count()); };
    auto cellOf = [&](Micros t) {
        return std::min(cells - 1, std::size_t(std::max(0.0, offset(t) / span * double(cells))));
    };
    const char* full = utf8 ? "\u2588" : "#";
    const char* part = utf8 ? "\u2584" : "+";
    const char* off = utf8 ? "\u00b7" : ".";
    const char* unknown = utf8 ? "\u2591" : "?";

    for (std::size_t r = 0; r < p.rows.size(); ++r) {
        std::vector<double> on(cells, 0.0), notKnown(cells, 0.0);
        std::vector<bool> any(cells, false);
        for (const auto& s : p.rows[r].segments) {
            if (s.state == State::Off) continue;
            for (std::size_t c = cellOf(s.from); c <= cellOf(s.to); ++c) {
                const double c0 = double(c) * span / double(cells);
                const double c1 = double(c + 1) * span / double(cells);
                const double share =
                    std::max(0.0, std::min(c1, offset(s.to)) - std::max(c0, offset(s.from))) /
                    (c1 - c0);
                if (s.state == State::On) {
                    on[c] += share;
                    any[c] = any[c] || share > 0 || s.from == s.to;
                } else {
                    notKnown[c] += share;
                }
            }
        }
        out << labels[r] << std::string(labelWidth - charCount(labels[r]) + 2, ' ');
        for (std::size_t c = 0; c < cells; ++c) {
            const bool whole = p.metadata ? any[c] : on[c] > 0.999;
            out << (whole ? full : any[c] ? part : notKnown[c] > 0.5 ? unknown : off);
        }
        out << '\n';
    }
    const std::string from = utcText(p.from, "%Y-%m-%dT%H:%M:%SZ");
    const std::string to = utcText(p.to, "%Y-%m-%dT%H:%M:%SZ");
    const std::size_t between = cells - std::min(cells - 1, from.size() + to.size());
    out << std::string(labelWidth + 2, ' ') << from << std::string(between, ' ') << to << '\n';
    out << std::string(labelWidth + 2, ' ') << full << (p.metadata ? " match  " : " on  ");
    if (!p.metadata) out << part << " on part of the time  ";
    out << off << (p.metadata ? " none  " : " off  ") << unknown
        << (p.metadata ? " not searched\n" : " unknown\n");
}

}  // namespace recsearch
