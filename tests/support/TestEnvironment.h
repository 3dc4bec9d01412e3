// What the shared test main sets up once per test binary.
#pragma once

#include <string>

#include "support/PrivateBus.h"

namespace rstest {

// The private bus that DBUS_SYSTEM_BUS_ADDRESS points at for the whole run.
PrivateBus& sharedBus();
// The file that KAVRO_LOG_FILE names for the whole run.
std::string logFilePath();

}  // namespace rstest
