#include "onvif/OnvifUsers.h"

#include <fstream>
#include <stdexcept>

#include <gnutls/crypto.h>
#include <gnutls/gnutls.h>

#include "client/InputText.h"
#include "client/SmallFile.h"
#include "onvif/SoapFault.h"
#include "onvif/XsdValues.h"

namespace onvif {

using rsclient::sameInConstantTime;
using rsclient::trimmed;

namespace {

constexpr int64_t kFreshSeconds = 5 * 60;
constexpr std::size_t kMostNonces = 65536;
constexpr std::size_t kMostUsersFile = std::size_t{64} << 10;

std::optional<std::string> base64Decoded(const std::string& text)
{
    gnutls_datum_t in{reinterpret_cast<unsigned char*>(const_cast<char*>(text.data())),
                      unsigned(text.size())};
    gnutls_datum_t out{nullptr, 0};
    if (text.empty() || gnutls_base64_decode2(&in, &out) < 0) return std::nullopt;
    std::string bytes(reinterpret_cast<const char*>(out.data), out.size);
    gnutls_free(out.data);
    return bytes;
}

}  // namespace

OnvifUsers::OnvifUsers(UserList users) : users_(std::move(users)) {}

UserList readUsersFile(const std::string& path, std::vector<std::string>* warnings)
{
    const std::string text = rsclient::readSmallFile(path, kMostUsersFile);
    if (auto warning = rsclient::secretFileWarning(path)) warnings->push_back(*warning);
    UserList users;
    std::size_t number = 0;
    std::size_t from = 0;
    while (from < text.size()) {
        auto to = text.find('\n', from);
        if (to == std::string::npos) to = text.size();
        const std::string line = trimmed(text.substr(from, to - from));
        from = to + 1;
        ++number;
        if (line.empty() || line[0] == '#') continue;
        const auto gap = line.find_first_of(" \t");
        const std::string password = gap == std::string::npos ? "" : trimmed(line.substr(gap));
        if (password.empty()) {
            throw std::runtime_error(rsclient::baseName(path) + " line " + std::to_string(number) +
                                     ": a user name, then its password");
        }
        users.emplace_back(line.substr(0, gap), password);
    }
    return users;
}

std::string OnvifUsers::passwordDigest(const std::string& nonceBytes, const std::string& created,
                                       const std::string& password)
{
    const std::string material = nonceBytes + created + password;
    unsigned char sha1[20];
    gnutls_hash_fast(GNUTLS_DIG_SHA1, material.data(), material.size(), sha1);
    gnutls_datum_t in{sha1, sizeof sha1};
    gnutls_datum_t out{nullptr, 0};
    if (gnutls_base64_encode2(&in, &out) < 0) throw std::bad_alloc();
    std::string text(reinterpret_cast<const char*>(out.data), out.size);
    gnutls_free(out.data);
    return text;
}

const std::string* OnvifUsers::passwordOf(const std::string& user) const
{
    const std::string* found = nullptr;
    for (const auto& [name, password] : users_) {
        if (sameInConstantTime(name, user) && found == nullptr) found = &password;
    }
    return found;
}

std::string OnvifUsers::authenticate(const std::optional<UsernameToken>& token, bool fromLoopback,
                                     std::chrono::system_clock::time_point now)
{
    if (!token) throw notAuthorized("a WS-Security UsernameToken is required");
    const std::string* password = passwordOf(token->user);
    // The same refusal for an unknown user and a wrong password.
    const SoapFault refused = notAuthorized("the user name or the password is not right");
    if (!token->digest) {
        if (!fromLoopback) {
            throw notAuthorized(
                "a password in plain text is taken only on this machine: send "
                "its digest");
        }
        if (password == nullptr || !sameInConstantTime(token->password, *password)) throw refused;
        return token->user;
    }
    std::string why;
    const auto created = readDateTime(token->created, &why);
    if (!created) throw notAuthorized("the UsernameToken's Created is " + why);
    const int64_t nowSec =
        std::chrono::duration_cast<std::chrono::seconds>(now.time_since_epoch()).count();
    if (int64_t(created->sec) < nowSec - kFreshSeconds ||
        int64_t(created->sec) > nowSec + kFreshSeconds) {
        throw notAuthorized(
            "the UsernameToken's Created is more than 5 minutes from this "
            "device's time (GetSystemDateAndTime tells it)");
    }
    const auto nonce = base64Decoded(token->nonce);
    if (!nonce) throw notAuthorized("the UsernameToken's Nonce is not base64");
    if (password == nullptr ||
        !sameInConstantTime(token->password, passwordDigest(*nonce, token->created, *password))) {
        throw refused;
    }
    if (!takeNonce(token->nonce, created->sec, nowSec)) {
        throw notAuthorized("this nonce was used before: each request needs a new one");
    }
    return token->user;
}

bool OnvifUsers::takeNonce(const std::string& nonce, int64_t created, int64_t now)
{
    std::lock_guard<std::mutex> lock(mutex_);
    while (!byCreated_.empty() && byCreated_.begin()->first < now - kFreshSeconds) {
        nonces_.erase(byCreated_.begin()->second);
        byCreated_.erase(byCreated_.begin());
    }
    if (created <= forgottenUpTo_ || nonces_.count(nonce) != 0) return false;
    if (nonces_.size() >= kMostNonces) {
        forgottenUpTo_ = byCreated_.begin()->first;
        nonces_.erase(byCreated_.begin()->second);
        byCreated_.erase(byCreated_.begin());
        if (created <= forgottenUpTo_) return false;
    }
    nonces_.emplace(nonce, created);
    byCreated_.emplace(created, nonce);
    return true;
}

}  // namespace onvif
