// Reading what people and programs type, without recursion and without trusting its length:
// plain decimals, and a short excerpt of any value for an error message.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace rsclient {

// Longer values are refused before they are read: no number, time or duration needs more.
constexpr std::size_t kMaxValueLength = 64;

// What XPath 1.0 reads as a number literal: digits with at most one point, no exponent, no
// plus sign; a leading minus only where allowed.
bool plainDecimal(std::string_view text, bool negativeAllowed);

// The value of a plain decimal (as a double, rounded); nothing for any other text.
std::optional<double> decimalValue(std::string_view text);

// Control bytes (\x1b) and the C1 controls of UTF-8 (\u009b) escaped, so that text from
// elsewhere cannot break lines or command a terminal.
std::string printable(std::string_view text);

// The value as an error message quotes it: control characters escaped, and cut to a few dozen
// characters with the full length said.
std::string excerpt(std::string_view text);

// "a value of N characters is too long (at most 64)" when it is, or an empty string.
std::string lengthProblem(std::string_view text);

// Without the spaces, tabs and line ends around it.
std::string trimmed(std::string_view text);

// Compared in constant time, so that timing tells nothing of a secret.
bool sameInConstantTime(std::string_view a, std::string_view b);

}  // namespace rsclient
