// The C arrays and texts that initiator calls hand out; freed with the kavro_core_free_* calls.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kavro/core.h"

namespace kavro {
namespace detail {

char** toStringArray(const std::vector<std::string>& strings);
unsigned int** toUintArray(const std::vector<uint32_t>& numbers);
char* toText(const std::string& text);

}  // namespace detail
}  // namespace kavro
