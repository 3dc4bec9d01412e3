#pragma once

#include <functional>
#include <string>
#include <unordered_map>

#include <sdbus-c++/sdbus-c++.h>

namespace kavro {
namespace detail {

// Follows the clients that made create requests and reports each one's departure from the bus
// once, after its create requests in progress have been answered, so that whatever they
// created is already in place when the departure is handled.
// Loop thread only: the constructor runs before the loop starts, everything else on it. The
// bus daemon forwards a client's calls before it announces that client's departure, so a
// departure never overtakes a create that reached us.
class ClientWatch {
public:
    ClientWatch(sdbus::IConnection& connection, std::function<void(const std::string&)> onLeft);

    void createStarted(const std::string& client);
    void createFinished(const std::string& client);

private:
    void nameLost(const std::string& name);
    void leave(const std::string& client);

    struct Client {
        int createsInProgress = 0;
        bool left = false;
    };
    // One entry per connected client that has created something: bounded by the bus itself.
    std::unordered_map<std::string, Client> clients_;
    std::function<void(const std::string&)> onLeft_;
    sdbus::Slot match_;
};

}  // namespace detail
}  // namespace kavro
