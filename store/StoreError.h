// The one exception type of the store: a recording file that cannot be used, or input that
// cannot be loaded. Its text is a complete sentence for a one-line error message.
#pragma once

#include <stdexcept>
#include <string>

namespace store {

class StoreError : public std::runtime_error {
public:
    explicit StoreError(const std::string& message) : std::runtime_error(message) {}
};

}  // namespace store
