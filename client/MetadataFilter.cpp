#include "client/MetadataFilter.h"

#include <sstream>

#include "client/InputText.h"

namespace rsclient {

namespace {

std::string lowerAscii(std::string text)
{
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') c = char(c - 'A' + 'a');
    }
    return text;
}

// Only the name's own letters need folding: any other capital in the value makes it differ
// from the name either way. That keeps the expression short enough to read.
std::string nameIs(const std::string& node, const std::string& name)
{
    const std::string lower = lowerAscii(name);
    std::string from, to;
    for (char c : lower) {
        if (c >= 'a' && c <= 'z' && to.find(c) == std::string::npos) {
            from += char(c - 'a' + 'A');
            to += c;
        }
    }
    if (from.empty()) return node + "=\"" + lower + "\"";
    return "translate(" + node + ",\"" + from + "\",\"" + to + "\")=\"" + lower + "\"";
}

std::string joined(const std::vector<std::string>& parts, const std::string& with)
{
    std::string out;
    for (const auto& part : parts) out += (out.empty() ? "" : with) + part;
    return out;
}

std::vector<std::string> splitCommas(const std::string& text)
{
    std::vector<std::string> parts;
    std::stringstream in(text);
    for (std::string part; std::getline(in, part, ',');) parts.push_back(part);
    if (!text.empty() && text.back() == ',') parts.emplace_back();
    return parts;
}

}  // namespace

std::string checkName(const std::string& name)
{
    if (name.empty()) return "a name must not be empty";
    if (std::string why = lengthProblem(name); !why.empty()) return why;
    for (unsigned char c : name) {
        if (c == '"' || c == '\'') return "a name must not contain quotes";
        if (c < 0x20 || c == 0x7f) return "a name must not contain control characters";
    }
    return "";
}

std::string checkLikelihood(const std::string& text)
{
    if (std::string why = lengthProblem(text); !why.empty()) return why;
    const auto value = plainDecimal(text, false) ? decimalValue(text) : std::nullopt;
    if (!value || *value > 1) {
        return excerpt(text) + " is not a likelihood from 0 to 1 (for example 0.8)";
    }
    return "";
}

std::string checkRegion(const std::string& text)
{
    if (text.size() > 4 * kMaxValueLength) return lengthProblem(text);
    const auto parts = splitCommas(text);
    const char* form = " is not LEFT,TOP,RIGHT,BOTTOM (for example 0,0,0.5,1)";
    if (parts.size() != 4) return excerpt(text) + form;
    double edge[4];
    for (std::size_t i = 0; i < 4; ++i) {
        if (std::string why = lengthProblem(parts[i]); !why.empty()) return why;
        const auto value = decimalValue(parts[i]);
        if (!value) return excerpt(text) + form;
        edge[i] = *value;
    }
    if (edge[0] >= edge[2]) return "the left edge must lie left of the right edge";
    if (edge[1] >= edge[3]) return "the top edge must lie above the bottom edge";
    return "";
}

Region parseRegion(const std::string& text)
{
    const auto parts = splitCommas(text);
    return Region{parts.at(0), parts.at(1), parts.at(2), parts.at(3)};
}

std::string filterXPath(const MetadataFilter& filter, const std::string& xpath)
{
    std::vector<std::string> type;
    if (!filter.classes.empty()) {
        std::vector<std::string> any;
        for (const auto& name : filter.classes) any.push_back(nameIs(".", name));
        type.push_back(any.size() == 1 ? any[0] : "(" + joined(any, " or ") + ")");
    }
    if (!filter.minLikelihood.empty()) type.push_back("@Likelihood>=" + filter.minLikelihood);

    std::vector<std::string> object;
    if (!type.empty()) object.push_back("Appearance/Class/Type[" + joined(type, " and ") + "]");
    if (!filter.colour.empty()) {
        object.push_back("Appearance/Color/ColorCluster[" + nameIs("@Name", filter.colour) + "]");
    }
    if (const auto& r = filter.region) {
        // A box that only touches the region's edge does not overlap it.
        object.push_back("Appearance/Shape/BoundingBox[@left<" + r->right + " and @right>" +
                         r->left + " and @top<" + r->bottom + " and @bottom>" + r->top + "]");
    }

    std::vector<std::string> all;
    if (!xpath.empty()) all.push_back(filter.empty() ? xpath : "(" + xpath + ")");
    if (!object.empty()) all.push_back("//Object[" + joined(object, " and ") + "]");
    if (filter.motion) {
        all.emplace_back(
            "//NotificationMessage[@Topic=\"VideoSource/MotionAlarm\" and "
            "Data/SimpleItem[@Name=\"State\" and @Value=\"true\"]]");
    }
    return joined(all, " and ");
}

}  // namespace rsclient
