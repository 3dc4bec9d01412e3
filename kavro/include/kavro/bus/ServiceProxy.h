// Proxies of kavro services, built from the generated proxy interfaces.
#pragma once

#include <string>
#include <utility>

#include <sdbus-c++/sdbus-c++.h>

#include "kavro/bus/Contract.h"

namespace kavro {
namespace bus {

// The generated interfaces of one service, addressed by the service's name. Signal handlers
// are overridden in a class of this; without Registered, signals are never subscribed.
template <typename... Generated>
class ServiceProxy : public sdbus::ProxyInterfaces<Generated...> {
public:
    ServiceProxy(sdbus::IConnection& connection, const std::string& service)
        : sdbus::ProxyInterfaces<Generated...>(connection, busName(service), objectPath(service))
    {
    }
};

// Proxy registered for calls and signals for as long as it lives. sd-bus may deliver a signal
// as soon as the proxy registers, so registering has to wait until the handlers and their
// state are built, and end before they go: this wrapper is the most derived class.
template <typename Proxy>
class Registered final : public Proxy {
public:
    template <typename... Args>
    explicit Registered(Args&&... args) : Proxy(std::forward<Args>(args)...)
    {
        this->registerProxy();
    }
    ~Registered() { this->unregisterProxy(); }
};

}  // namespace bus
}  // namespace kavro
