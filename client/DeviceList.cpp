#include "client/DeviceList.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>

#include "client/ClientError.h"
#include "client/InputText.h"

namespace rsclient {

namespace {

[[noreturn]] void usage(const std::string& message)
{
    throw ClientError(ErrorKind::Usage, message);
}

bool nameCharacter(char c)
{
    return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_' || c == '.';
}

std::string folderOf(const std::string& path)
{
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
}

std::string besideFile(const std::string& folder, const std::string& path)
{
    return path.empty() || path[0] == '/' ? path : folder + path;
}

// Empty when the URL may carry a token, else why not.
std::string checkUrl(const std::string& url)
{
    const auto scheme = url.find("://");
    if (scheme == std::string::npos) return "expected a URL such as https://camera-1:8470";
    const std::string name = url.substr(0, scheme);
    const std::string rest = url.substr(scheme + 3);
    const std::string host = rest.substr(0, rest.find('/'));
    if (host.empty()) return "the URL has no host";
    if (name == "https") return "";
    if (name != "http") return "the URL must start with https:// (or http:// on loopback)";
    for (const char* loopback : {"127.0.0.1", "[::1]", "localhost"}) {
        const std::string l = loopback;
        if (host == l || host.rfind(l + ":", 0) == 0) return "";
    }
    return "http:// is for loopback only, where the token cannot be overheard; use https://";
}

std::string readToken(const std::string& path)
{
    std::ifstream file(path);
    if (!file)
        throw std::runtime_error("cannot read its token file " + path + ": " +
                                 std::strerror(errno));
    std::string token;
    std::getline(file, token);
    while (!token.empty() && (token.back() == '\r' || token.back() == ' ')) token.pop_back();
    if (token.empty()) throw std::runtime_error("its token file " + path + " is empty");
    return token;
}

}  // namespace

std::vector<Device> readDevices(const std::string& path)
{
    std::ifstream file(path);
    if (!file) usage("cannot read the devices file " + path + ": " + std::strerror(errno));
    const std::string folder = folderOf(path);
    std::vector<Device> devices;
    std::set<std::string> names;
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
        const std::string where = "devices file " + path + " line " + std::to_string(number) + ": ";
        std::istringstream fields(line);
        std::vector<std::string> words;
        for (std::string word; fields >> word;) words.push_back(word);
        if (words.empty() || words[0][0] == '#') continue;
        if (words.size() < 3 || words.size() > 4) {
            usage(where + "expected NAME URL TOKEN_FILE [CA_FILE], found " +
                  std::to_string(words.size()) + " fields");
        }
        // The files may also be written token=PATH and ca=PATH.
        for (std::size_t i = 2; i < words.size(); ++i) {
            for (const char* key : {"token=", "ca="}) {
                if (words[i].rfind(key, 0) == 0) words[i].erase(0, std::strlen(key));
            }
        }
        Device device{words[0], words[1], "", words.size() == 4 ? words[3] : ""};
        if (device.name.size() > 32 ||
            !std::all_of(device.name.begin(), device.name.end(), nameCharacter)) {
            usage(where + "the name " + excerpt(device.name) +
                  " must be 1 to 32 letters, digits, '-', '_' or '.'");
        }
        if (!names.insert(device.name).second) usage(where + device.name + " is named twice");
        if (const std::string why = checkUrl(device.url); !why.empty()) {
            usage(where + excerpt(device.url) + ": " += why);
        }
        while (!device.url.empty() && device.url.back() == '/') device.url.pop_back();
        try {
            device.token = readToken(besideFile(folder, words[2]));
        } catch (const std::runtime_error& e) {
            usage(where + device.name + ": " + e.what());
        }
        device.caFile = besideFile(folder, device.caFile);
        if (!device.caFile.empty() && !std::ifstream(device.caFile)) {
            usage(where + device.name + ": cannot read its CA file " + device.caFile + ": " +
                  std::strerror(errno));
        }
        devices.push_back(std::move(device));
    }
    if (devices.empty()) usage("devices file " + path + " names no device");
    return devices;
}

std::vector<Device> chooseDevices(const std::vector<Device>& all,
                                  const std::vector<std::string>& names)
{
    for (const auto& name : names) {
        if (std::none_of(all.begin(), all.end(), [&](const Device& d) { return d.name == name; }))
            usage("no device named " + excerpt(name) + " in the devices file");
    }
    if (names.empty()) return all;
    std::vector<Device> chosen;
    for (const auto& device : all) {
        if (std::find(names.begin(), names.end(), device.name) != names.end())
            chosen.push_back(device);
    }
    return chosen;
}

}  // namespace rsclient
