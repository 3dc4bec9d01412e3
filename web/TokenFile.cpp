#include "web/TokenFile.h"

#include <algorithm>
#include <fstream>
#include <stdexcept>

namespace web {

namespace {

constexpr const char* kScheme = "Bearer ";

std::string trimmed(const std::string& text)
{
    const auto first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos) return {};
    return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

bool sameInConstantTime(const std::string& a, const std::string& b)
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

}  // namespace

TokenFile::TokenFile(const std::string& path)
{
    std::ifstream in(path);
    if (!in) throw std::runtime_error("cannot read the token file " + path);
    for (std::string line; std::getline(in, line);) {
        line = trimmed(line);
        if (!line.empty() && line[0] != '#') tokens_.push_back(line);
    }
    if (tokens_.empty()) throw std::runtime_error("the token file " + path + " holds no token");
}

bool TokenFile::allows(const std::string& authorization) const
{
    const std::string scheme = kScheme;
    if (authorization.compare(0, scheme.size(), scheme) != 0) return false;
    const std::string offered = trimmed(authorization.substr(scheme.size()));
    bool allowed = false;
    for (const auto& token : tokens_) allowed = sameInConstantTime(offered, token) || allowed;
    return allowed && !offered.empty();
}

}  // namespace web
