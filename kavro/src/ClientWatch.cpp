#include "ClientWatch.h"

namespace kavro {
namespace detail {

namespace {

// Every unique or well-known name that loses its owner; a client's unique name is lost exactly
// when its connection closes, however it ends.
constexpr const char* kNameLostRule =
    "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
    "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg2=''";

}  // namespace

ClientWatch::ClientWatch(sdbus::IConnection& connection,
                         std::function<void(const std::string&)> onLeft)
    : onLeft_(std::move(onLeft))
{
    match_ = connection.addMatch(kNameLostRule, [this](sdbus::Message& message) {
        std::string name;
        message >> name;
        nameLost(name);
    });
}

void ClientWatch::createStarted(const std::string& client)
{
    if (client.empty()) return;
    ++clients_[client].createsInProgress;
}

void ClientWatch::createFinished(const std::string& client)
{
    const auto it = clients_.find(client);
    if (it == clients_.end()) return;
    --it->second.createsInProgress;
    if (it->second.left && it->second.createsInProgress == 0) leave(client);
}

void ClientWatch::nameLost(const std::string& name)
{
    const auto it = clients_.find(name);
    if (it == clients_.end()) return;
    it->second.left = true;
    if (it->second.createsInProgress == 0) leave(name);
}

void ClientWatch::leave(const std::string& client)
{
    clients_.erase(client);
    onLeft_(client);
}

}  // namespace detail
}  // namespace kavro
