// The devices a site searches as one: a file of one device a line,
//
//   NAME  URL  TOKEN_FILE  [CA_FILE]
//
// where URL is the device's gateway (https, or http on loopback only, since the token would
// travel in clear), TOKEN_FILE holds the token on its first line (never the token itself in
// this file) and CA_FILE pins the certificate authority or certificate its gateway must show.
// The two paths may also be written token=TOKEN_FILE and ca=CA_FILE. Relative paths are taken
// from the devices file's folder. Blank lines and lines starting with
// '#' are skipped. A URL carries no user, password, query or fragment.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace rsclient {

struct Device {
    std::string name;
    std::string url;  // without a trailing slash
    std::string token;
    std::string caFile;  // empty: the system's authorities
};

// One search goes to at most this many devices.
constexpr std::size_t kMostDevices = 32;

// Throws ClientError (usage) that names the file and the line of the first bad entry.
// `warnings` gets a sentence for each token file that is not kept as a secret should be.
std::vector<Device> readDevices(const std::string& path,
                                std::vector<std::string>* warnings = nullptr);

// The named devices in the file's order, or all of them when `names` is empty; an unknown
// name, or more than kMostDevices, is a ClientError (usage).
std::vector<Device> chooseDevices(const std::vector<Device>& all,
                                  const std::vector<std::string>& names);

}  // namespace rsclient
