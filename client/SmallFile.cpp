#include "client/SmallFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace rsclient {

std::string baseName(const std::string& path) { return path.substr(path.rfind('/') + 1); }

std::string readSmallFile(const std::string& path, std::size_t most)
{
    const std::string name = baseName(path);
    // Without blocking: opening a FIFO would wait for a writer.
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) throw std::runtime_error("cannot read " + name + ": " + std::strerror(errno));
    struct stat st {};
    std::string text;
    std::string problem;
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        problem = name + " is not a regular file";
    } else if (std::size_t(st.st_size) > most) {
        problem = name + " is longer than " + std::to_string(most) + " bytes";
    } else {
        // One byte more than the bound tells a file that grew since fstat.
        text.resize(most + 1);
        std::size_t got = 0;
        for (ssize_t n;
             got < text.size() && (n = ::read(fd, &text[got], text.size() - got)) != 0;) {
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) {
                problem = "cannot read " + name + ": " + std::strerror(errno);
                break;
            }
            got += std::size_t(n);
        }
        text.resize(got);
        if (problem.empty() && got > most) {
            problem = name + " is longer than " + std::to_string(most) + " bytes";
        }
    }
    ::close(fd);
    if (!problem.empty()) throw std::runtime_error(problem);
    return text;
}

std::optional<std::string> secretFileWarning(const std::string& path)
{
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return std::nullopt;
    if ((st.st_mode & S_IROTH) != 0) {
        return baseName(path) + " is readable by every user; chmod o-r it";
    }
    if (st.st_uid != ::geteuid() && st.st_uid != 0) {
        return baseName(path) + " belongs to another user (uid " + std::to_string(st.st_uid) + ")";
    }
    return std::nullopt;
}

}  // namespace rsclient
