#include "kavro/core.h"

#include <atomic>
#include <mutex>
#include <string>

namespace {

std::atomic<int> coreUsers{0};
std::mutex settingsMutex;
std::string settingsService;

}  // namespace

extern "C" {

kavro_core_status kavro_core_init(void)
{
    ++coreUsers;
    return KAVRO_STATUS_OK;
}

kavro_core_status kavro_core_deinit(void)
{
    // A deinit without a matching init is accepted: shut-down paths call it unconditionally.
    int users = coreUsers.load();
    while (users > 0 && !coreUsers.compare_exchange_weak(users, users - 1)) {}
    return KAVRO_STATUS_OK;
}

kavro_core_status kavro_core_settings_init(const char* serviceName)
{
    if (serviceName == nullptr || *serviceName == '\0') return KAVRO_STATUS_INVALID_ARGUMENT;
    std::lock_guard<std::mutex> lock(settingsMutex);
    settingsService = serviceName;
    return KAVRO_STATUS_OK;
}

kavro_core_status kavro_core_settings_deinit(void)
{
    std::lock_guard<std::mutex> lock(settingsMutex);
    settingsService.clear();
    return KAVRO_STATUS_OK;
}

}  // extern "C"
