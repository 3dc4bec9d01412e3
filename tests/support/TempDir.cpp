#include "support/TempDir.h"

#include <stdlib.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace rstest {

std::string makeTempDir(const std::string& prefix)
{
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/" + prefix + "-XXXXXX";
    if (!mkdtemp(pattern.data())) {
        throw std::runtime_error("mkdtemp " + pattern + ": " + std::strerror(errno));
    }
    return pattern;
}

TempDir::TempDir(const std::string& prefix) : path_(makeTempDir(prefix)) {}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::write(const std::string& name, const std::string& text) const
{
    const std::string path = file(name);
    std::ofstream(path, std::ios::binary) << text;
    return path;
}

}  // namespace rstest
