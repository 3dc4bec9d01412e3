// Owners for what the initiator calls hand out, so that an answer is released on every path
// out of a step, including an exception.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>

#include "kavro/core.h"

struct FreeStringArray {
    void operator()(char** array) const { kavro_core_free_string_array(array); }
};
struct FreeUintArray {
    void operator()(unsigned int** array) const { kavro_core_free_uint_array(array); }
};
struct FreeText {
    void operator()(char* text) const { std::free(text); }
};

using OwnedStringArray = std::unique_ptr<char*, FreeStringArray>;
using OwnedUintArray = std::unique_ptr<unsigned int*, FreeUintArray>;
using OwnedText = std::unique_ptr<char, FreeText>;

// Entries before the terminator; a missing array has none.
template <typename T>
std::size_t nullTerminatedLength(T* const* array)
{
    std::size_t length = 0;
    if (array != nullptr) {
        while (array[length] != nullptr) ++length;
    }
    return length;
}
