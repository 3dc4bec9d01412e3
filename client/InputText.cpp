#include "client/InputText.h"

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
    for (unsigned char c : text) {
        if (c < 0x20 || c == 0x7f) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02x", c);
            out += escaped;
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

}  // namespace rsclient
