// Reading the small files a person sets up (devices, tokens) without trusting them: only a
// regular file, and never more than a bound, so that /dev/zero or a FIFO named by mistake is a
// clear error rather than a process that reads forever.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace rsclient {

// The whole file; throws std::runtime_error (naming the file by its last part) when it cannot
// be opened, is not a regular file, or is longer than `most` bytes.
std::string readSmallFile(const std::string& path, std::size_t most);

// Why a file of secrets is not kept as one should be (readable by others, or owned by a user
// other than this process's or root's), if it is not.
std::optional<std::string> secretFileWarning(const std::string& path);

std::string baseName(const std::string& path);

}  // namespace rsclient
