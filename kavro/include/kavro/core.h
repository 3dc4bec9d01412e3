// The framework's core: start-up and shut-down, logging, settings, statuses, and the
// arrays that initiator calls hand out. Every function may be called from any thread.
#pragma once

#include <cstdarg>

extern "C" {

// 0 is success. A failing service's own status numbers travel unchanged; the framework's own
// failures use the values from 1000 on, so the two never collide in practice.
typedef enum kavro_core_status {
    KAVRO_STATUS_OK = 0,
    KAVRO_STATUS_FAILED = 1,               // generic failure of a service
    KAVRO_STATUS_INVALID_ARGUMENT = 1000,  // null handle, null output, bad text
    KAVRO_STATUS_NOT_INITIALISED = 1001,   // a call before its init, or after its deinit
    KAVRO_STATUS_NO_MEMORY = 1002,
    KAVRO_STATUS_BUS_UNREACHABLE = 1003,  // no bus to connect to
    KAVRO_STATUS_SERVICE_UNKNOWN = 1004,  // the called service is not on the bus
    KAVRO_STATUS_TIMEOUT = 1005,          // no reply within the call timeout
    KAVRO_STATUS_MALFORMED_REPLY = 1006,  // a reply that breaks the interface's contract
    KAVRO_STATUS_TRANSPORT_ERROR = 1007,  // any other D-Bus failure
    KAVRO_STATUS_NAME_TAKEN = 1008,       // the service's bus name is owned by someone else
    KAVRO_STATUS_BUS_LOST = 1009,         // the bus went away while serving
    KAVRO_STATUS_IO_ERROR = 1010,         // a file the framework needs cannot be used
    KAVRO_STATUS_ACCESS_DENIED = 1011,    // the bus policy refuses us
    KAVRO_STATUS_MAX_ = 0x7fffffff
} kavro_core_status;

// syslog priorities: 3 error, 4 warning, 5 notice, 6 info, 7 debug.
typedef int kavro_core_log_priority;

kavro_core_status kavro_core_init(void);
kavro_core_status kavro_core_deinit(void);

// Lines go to the journal, or to $KAVRO_LOG_FILE when set ("<priority> <identity>: <message>").
// Lines above $KAVRO_LOG_MAX_PRIORITY (0-7, default 7) are dropped. A null handle is accepted
// (its lines go out under the identity "kavro"), and so is a de-initialised one (its lines
// still go out, under its own identity). A line break in a message is written as "\n".
kavro_core_status kavro_core_logging_init(const char* identity, void** logCookie);
kavro_core_status kavro_core_logging_deinit(void* logCookie);
kavro_core_status kavro_core_logging_log(void* logCookie, kavro_core_log_priority priority,
                                         const char* format, ...)
    __attribute__((format(printf, 3, 4)));
kavro_core_status kavro_core_logging_logv(void* logCookie, kavro_core_log_priority priority,
                                          const char* format, va_list args)
    __attribute__((format(printf, 3, 0)));

kavro_core_status kavro_core_settings_init(const char* serviceName);
kavro_core_status kavro_core_settings_deinit(void);

// Arrays handed out by initiator calls are null-terminated; both accept null.
void kavro_core_free_string_array(char** array);
void kavro_core_free_uint_array(unsigned int** array);

}  // extern "C"
