// Scratch directories for tests, under $TMPDIR (or /tmp).
#pragma once

#include <string>

namespace rstest {

// Creates a fresh directory named PREFIX-XXXXXX; the caller removes it. Throws
// std::runtime_error with the reason when it cannot.
std::string makeTempDir(const std::string& prefix);

// A directory of its own for one test or fixture, removed with everything in it by the
// destructor.
class TempDir {
public:
    explicit TempDir(const std::string& prefix = "rs-test");
    ~TempDir();

    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    // Writes `text` to the file `name` in the directory and returns the file's path.
    std::string write(const std::string& name, const std::string& text) const;

    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

private:
    std::string path_;
};

}  // namespace rstest
