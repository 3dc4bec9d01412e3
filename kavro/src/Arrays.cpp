#include "Arrays.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace kavro {
namespace detail {

char** toStringArray(const std::vector<std::string>& strings)
{
    auto** array = static_cast<char**>(std::calloc(strings.size() + 1, sizeof(char*)));
    if (array == nullptr) throw std::bad_alloc();
    for (size_t i = 0; i < strings.size(); ++i) {
        array[i] = strdup(strings[i].c_str());
        if (array[i] == nullptr) {
            kavro_core_free_string_array(array);
            throw std::bad_alloc();
        }
    }
    return array;
}

unsigned int** toUintArray(const std::vector<uint32_t>& numbers)
{
    auto** array =
        static_cast<unsigned int**>(std::calloc(numbers.size() + 1, sizeof(unsigned int*)));
    if (array == nullptr) throw std::bad_alloc();
    for (size_t i = 0; i < numbers.size(); ++i) {
        array[i] = static_cast<unsigned int*>(std::malloc(sizeof(unsigned int)));
        if (array[i] == nullptr) {
            kavro_core_free_uint_array(array);
            throw std::bad_alloc();
        }
        *array[i] = numbers[i];
    }
    return array;
}

char* toText(const std::string& text)
{
    char* copy = strdup(text.c_str());
    if (copy == nullptr) throw std::bad_alloc();
    return copy;
}

}  // namespace detail
}  // namespace kavro

extern "C" {

void kavro_core_free_string_array(char** array)
{
    if (array == nullptr) return;
    for (char** entry = array; *entry != nullptr; ++entry) std::free(*entry);
    std::free(array);
}

void kavro_core_free_uint_array(unsigned int** array)
{
    if (array == nullptr) return;
    for (unsigned int** entry = array; *entry != nullptr; ++entry) std::free(*entry);
    std::free(array);
}

}  // extern "C"
