// The bearer tokens that may use the API: the non-empty lines of a file (# starts a comment).
#pragma once

#include <string>
#include <vector>

namespace web {

class TokenFile {
public:
    // Throws std::runtime_error when the file cannot be read or holds no token.
    explicit TokenFile(const std::string& path);

    // The value of an Authorization header; compared in constant time with every token, so
    // that neither timing nor the order of the file tells anything.
    bool allows(const std::string& authorization) const;

private:
    std::vector<std::string> tokens_;
};

}  // namespace web
