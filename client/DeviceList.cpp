#include "client/DeviceList.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>

#include "client/ClientError.h"
#include "client/CurlLibrary.h"
#include "client/InputText.h"
#include "client/SmallFile.h"

namespace rsclient {

namespace {

constexpr std::size_t kLongestFile = std::size_t{64} << 10;
constexpr std::size_t kLongestLine = 1024;
constexpr std::size_t kLongestToken = 4096;

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

// A part of a parsed URL, if it has it.
std::optional<std::string> part(const CurlLibrary& c, CURLU* url, CURLUPart which)
{
    char* text = nullptr;
    if (c.url_get(url, which, &text, 0) != CURLUE_OK || text == nullptr) return std::nullopt;
    std::string value = text;
    c.free(text);
    return value;
}

// Empty when the URL may carry a token (then `url` is as libcurl reads it), else why not.
// Nothing of the URL is quoted back: it may hold a password.
std::string checkUrl(std::string& url)
{
    const CurlLibrary& c = curlLibrary();
    std::unique_ptr<CURLU, void (*)(CURLU*)> parsed(c.url(), c.url_cleanup);
    if (!parsed || c.url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK) {
        return "expected a URL such as https://camera-1:8470";
    }
    const auto scheme = part(c, parsed.get(), CURLUPART_SCHEME).value_or("");
    if (scheme != "https" && scheme != "http") {
        return "the URL must start with https:// (or http:// on loopback)";
    }
    if (part(c, parsed.get(), CURLUPART_USER) || part(c, parsed.get(), CURLUPART_PASSWORD) ||
        part(c, parsed.get(), CURLUPART_OPTIONS)) {
        return "the URL must not carry a user or a password (the token file is what is sent)";
    }
    if (part(c, parsed.get(), CURLUPART_QUERY) || part(c, parsed.get(), CURLUPART_FRAGMENT)) {
        return "the URL must not carry a query or a fragment";
    }
    const auto host = part(c, parsed.get(), CURLUPART_HOST).value_or("");
    if (host.empty()) return "the URL has no host";
    if (scheme == "http" && host != "127.0.0.1" && host != "[::1]" && host != "localhost") {
        return "http:// is for loopback only, where the token cannot be overheard; use https://";
    }
    url = part(c, parsed.get(), CURLUPART_URL).value_or(url);
    while (!url.empty() && url.back() == '/') url.pop_back();
    return "";
}

std::string readToken(const std::string& path)
{
    std::string token = readSmallFile(path, kLongestToken);
    token = token.substr(0, token.find('\n'));
    while (!token.empty() && (token.back() == '\r' || token.back() == ' ')) token.pop_back();
    if (token.empty()) throw std::runtime_error("its token file " + baseName(path) + " is empty");
    return token;
}

std::vector<std::string> wordsOf(const std::string& line)
{
    std::istringstream fields(line);
    std::vector<std::string> words;
    for (std::string word; fields >> word;) words.push_back(word);
    // The files may also be written token=PATH and ca=PATH.
    for (std::size_t i = 2; i < words.size(); ++i) {
        for (const std::string key : {"token=", "ca="}) {
            if (words[i].rfind(key, 0) == 0) words[i].erase(0, key.size());
        }
    }
    return words;
}

Device deviceOf(const std::vector<std::string>& words, const std::string& folder,
                const std::string& where, std::vector<std::string>* warnings)
{
    Device device{words[0], words[1], "", words.size() == 4 ? words[3] : ""};
    if (device.name.size() > 32 ||
        !std::all_of(device.name.begin(), device.name.end(), nameCharacter)) {
        usage(where + "the name " + excerpt(device.name) +
              " must be 1 to 32 letters, digits, '-', '_' or '.'");
    }
    if (const std::string why = checkUrl(device.url); !why.empty()) {
        usage(where + "the URL of " + device.name + ": " + why);
    }
    const std::string tokenFile = besideFile(folder, words[2]);
    try {
        device.token = readToken(tokenFile);
    } catch (const std::runtime_error& e) {
        usage(where + device.name + ": " + e.what());
    }
    if (const auto warning = secretFileWarning(tokenFile); warning && warnings) {
        warnings->push_back(device.name + "'s token file " + *warning);
    }
    device.caFile = besideFile(folder, device.caFile);
    if (!device.caFile.empty()) {
        try {
            readSmallFile(device.caFile, kLongestFile);
        } catch (const std::runtime_error& e) {
            usage(where + device.name + ": its CA file: " + e.what());
        }
    }
    return device;
}

}  // namespace

std::vector<Device> readDevices(const std::string& path, std::vector<std::string>* warnings)
{
    std::string text;
    try {
        text = readSmallFile(path, kLongestFile);
    } catch (const std::runtime_error& e) {
        usage(std::string("the devices file: ") + e.what());
    }
    const std::string folder = folderOf(path);
    std::vector<Device> devices;
    std::set<std::string> names;
    std::istringstream lines(text);
    std::string line;
    for (int number = 1; std::getline(lines, line); ++number) {
        const std::string where = "devices file " + path + " line " + std::to_string(number) + ": ";
        if (line.size() > kLongestLine) usage(where + "longer than 1024 characters");
        const auto words = wordsOf(line);
        if (words.empty() || words[0][0] == '#') continue;
        if (words.size() < 3 || words.size() > 4) {
            usage(where + "expected NAME URL TOKEN_FILE [CA_FILE], found " +
                  std::to_string(words.size()) + " fields");
        }
        if (!names.insert(words[0]).second) usage(where + excerpt(words[0]) + " is named twice");
        devices.push_back(deviceOf(words, folder, where, warnings));
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
    std::vector<Device> chosen;
    for (const auto& device : all) {
        if (names.empty() || std::find(names.begin(), names.end(), device.name) != names.end())
            chosen.push_back(device);
    }
    if (chosen.size() > kMostDevices) {
        usage("a search goes to at most " + std::to_string(kMostDevices) + " devices, not " +
              std::to_string(chosen.size()) + "; name the ones to search");
    }
    return chosen;
}

}  // namespace rsclient
