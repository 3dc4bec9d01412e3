#pragma once

#include <string>

namespace kavro {
namespace detail {

// Names the client whose request the current thread serves, for as long as it lives.
class RequestScope {
public:
    explicit RequestScope(const std::string& client);
    ~RequestScope();

    RequestScope(const RequestScope&) = delete;
    RequestScope& operator=(const RequestScope&) = delete;
};

}  // namespace detail
}  // namespace kavro
