#include "client/InputText.h"

#include <algorithm>
#include <charconv>
#include <cstdio>

namespace rsclient {

namespace {

constexpr std::size_t kExcerptLength = 40;

bool digit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

bool plainDecimal(std::string_view text, bool negativeAllowed)
{
    if (!text.empty() && text[0] == '-') {
        if (!negativeAllowed) return false;
        text.remove_prefix(1);
    }
    std::size_t digits = 0;
    bool point = false;
    for (char c : text) {
        if (digit(c)) {
            ++digits;
        } else if (c == '.' && !point) {
            point = true;
        } else {
            return false;
        }
    }
    return digits > 0;
}

std::optional<double> decimalValue(std::string_view text)
{
    if (!plainDecimal(text, true)) return std::nullopt;
    double value = 0;
    const auto [end, error] =
        std::from_chars(text.data(), text.data() + text.size(), value, std::chars_format::fixed);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

std::string printable(std::string_view text)
{
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        const auto next = i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : 0;
        char escaped[8];
        if (c < 0x20 || c == 0x7f) {
            std::snprintf(escaped, sizeof escaped, "\\x%02x", c);
            out += escaped;
        } else if (c == 0xc2 && next >= 0x80 && next <= 0x9f) {
            // U+0080 to U+009F: the C1 controls, which terminals obey as ESC sequences.
            std::snprintf(escaped, sizeof escaped, "\\u%04x", next);
            out += escaped;
            ++i;
        } else {
            out += char(c);
        }
    }
    return out;
}

std::string excerpt(std::string_view text)
{
    std::string out = printable(text.substr(0, kExcerptLength));
    if (text.size() > kExcerptLength) {
        out += "... (" + std::to_string(text.size()) + " characters)";
    }
    return out;
}

std::string lengthProblem(std::string_view text)
{
    if (text.size() <= kMaxValueLength) return "";
    return "a value of " + std::to_string(text.size()) + " characters is too long (at most " +
           std::to_string(kMaxValueLength) + ")";
}

std::string trimmed(std::string_view text)
{
    const auto first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) return {};
    return std::string(text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1));
}

bool sameInConstantTime(std::string_view a, std::string_view b)
{
    const std::size_t n = std::max(a.size(), b.size());
    unsigned char difference = a.size() == b.size() ? 0 : 1;
    for (std::size_t i = 0; i < n; ++i) {
        const auto x = static_cast<unsigned char>(i < a.size() ? a[i] : 0);
        const auto y = static_cast<unsigned char>(i < b.size() ? b[i] : 0);
        difference = static_cast<unsigned char>(difference | (x ^ y));
    }
    return difference == 0;
}

}  // namespace rsclient
