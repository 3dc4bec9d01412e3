#include "web/TokenFile.h"

#include <algorithm>
#include <fstream>
#include <stdexcept>

#include "client/InputText.h"

namespace web {

using rsclient::sameInConstantTime;
using rsclient::trimmed;

namespace {

constexpr const char* kScheme = "Bearer ";

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
