// Who may use the standard interface: WS-Security UsernameTokens checked against a users file
// (a user name and a password a line). A digest is SHA-1 of nonce, created and password; a
// nonce is taken once, a Created more than five minutes off is stale, and a password sent in
// the clear is taken only from the gateway's own machine.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "onvif/SoapMessage.h"

namespace onvif {

using UserList = std::vector<std::pair<std::string, std::string>>;

// Throws std::runtime_error when the file cannot be read or a line holds no password;
// `warnings` gets what is wrong with how the file is kept.
UserList readUsersFile(const std::string& path, std::vector<std::string>* warnings);

class OnvifUsers {
public:
    OnvifUsers() = default;  // nobody: every call but the clock is refused
    explicit OnvifUsers(UserList users);

    // Throws SoapFault (NotAuthorized) unless the token names a user and proves the password.
    // Returns the user's name.
    std::string authenticate(const std::optional<UsernameToken>& token, bool fromLoopback,
                             std::chrono::system_clock::time_point now);

    std::size_t size() const { return users_.size(); }

    // The digest a client sends: base64(SHA-1(nonce + created + password)), the nonce as bytes.
    static std::string passwordDigest(const std::string& nonceBytes, const std::string& created,
                                      const std::string& password);

    OnvifUsers(const OnvifUsers&) = delete;
    OnvifUsers& operator=(const OnvifUsers&) = delete;

private:
    const std::string* passwordOf(const std::string& user) const;
    // False when the nonce was seen, or is older than what the bounded memory still holds.
    bool takeNonce(const std::string& nonce, int64_t created, int64_t now);

    UserList users_;
    std::mutex mutex_;
    std::map<std::string, int64_t> nonces_;  // nonce -> its Created, while it could be replayed
    std::multimap<int64_t, std::string> byCreated_;
    int64_t forgottenUpTo_ = -1;  // Created times at or before this were dropped unexpired
};

}  // namespace onvif
