#include <fcntl.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <new>
#include <shared_mutex>
#include <string>
#include <vector>

#include "kavro/core.h"

namespace {

constexpr const char* kAnonymousIdentity = "kavro";

int maxPriorityFromEnvironment()
{
    const char* text = std::getenv("KAVRO_LOG_MAX_PRIORITY");
    if (text == nullptr || text[0] < '0' || text[0] > '7' || text[1] != '\0') return 7;
    return text[0] - '0';
}

int openLogFile(const char* path)
{
    return ::open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
}

// One logging handle. Handles are never freed: the service logs through its handle after
// de-initialisation (its target is destroyed at process exit), so the handle stays valid and
// only its file is closed. They live in a registry that is never destroyed either, so that
// logging during static destruction still finds them.
struct Logger {
    std::string identity;
    int maxPriority = 7;
    std::shared_mutex fileMutex;  // guards fd against a deinit while other threads log
    int fd = -1;
    bool toFile = false;
};

// One line per call: a line break inside a message (a client's text, say) is written as "\n",
// so nobody can forge a line of their own.
std::string oneLine(int priority, const std::string& identity, const char* message)
{
    std::string line = std::to_string(priority) + " " + identity + ": ";
    for (const char* c = message; *c != '\0'; ++c) {
        if (*c == '\n')
            line += "\\n";
        else if (*c == '\r')
            line += "\\r";
        else
            line += *c;
    }
    line += '\n';
    return line;
}

void writeLine(int fd, int priority, const std::string& identity, const char* message)
{
    const std::string line = oneLine(priority, identity, message);
    // One write per line: O_APPEND keeps lines of concurrent writers whole.
    [[maybe_unused]] ssize_t written = ::write(fd, line.data(), line.size());
}

// For a null or de-initialised handle: the destination is decided at call time.
void writeDetached(int priority, const std::string& identity, const char* message)
{
    const char* path = std::getenv("KAVRO_LOG_FILE");
    if (path == nullptr || *path == '\0') {
        sd_journal_send("MESSAGE=%s", message, "PRIORITY=%i", priority, "SYSLOG_IDENTIFIER=%s",
                        identity.c_str(), nullptr);
        return;
    }
    const int fd = openLogFile(path);
    if (fd < 0) return;
    writeLine(fd, priority, identity, message);
    ::close(fd);
}

bool wanted(const Logger* logger, int priority)
{
    return priority <= (logger != nullptr ? logger->maxPriority : maxPriorityFromEnvironment());
}

void emit(Logger* logger, int priority, const char* message)
{
    if (logger == nullptr) {
        writeDetached(priority, kAnonymousIdentity, message);
        return;
    }
    {
        std::shared_lock<std::shared_mutex> lock(logger->fileMutex);
        if (logger->fd >= 0) {
            writeLine(logger->fd, priority, logger->identity, message);
            return;
        }
        if (!logger->toFile) {
            sd_journal_send("MESSAGE=%s", message, "PRIORITY=%i", priority, "SYSLOG_IDENTIFIER=%s",
                            logger->identity.c_str(), nullptr);
            return;
        }
    }
    writeDetached(priority, logger->identity, message);
}

Logger* newLogger()
{
    static std::mutex registryMutex;
    static auto* registry = new std::deque<Logger>;
    std::lock_guard<std::mutex> lock(registryMutex);
    return &registry->emplace_back();
}

}  // namespace

extern "C" {

kavro_core_status kavro_core_logging_init(const char* identity, void** logCookie)
{
    if (identity == nullptr || logCookie == nullptr) return KAVRO_STATUS_INVALID_ARGUMENT;
    Logger* logger = nullptr;
    try {
        logger = newLogger();
    } catch (const std::bad_alloc&) {
        return KAVRO_STATUS_NO_MEMORY;
    }
    logger->identity = identity;
    logger->maxPriority = maxPriorityFromEnvironment();
    const char* path = std::getenv("KAVRO_LOG_FILE");
    if (path != nullptr && *path != '\0') {
        logger->toFile = true;
        logger->fd = openLogFile(path);
        if (logger->fd < 0)
            return KAVRO_STATUS_IO_ERROR;  // the unused handle stays in the registry
    }
    *logCookie = logger;
    return KAVRO_STATUS_OK;
}

kavro_core_status kavro_core_logging_deinit(void* logCookie)
{
    auto* logger = static_cast<Logger*>(logCookie);
    if (logger == nullptr) return KAVRO_STATUS_INVALID_ARGUMENT;
    std::unique_lock<std::shared_mutex> lock(logger->fileMutex);
    if (logger->fd >= 0) ::close(logger->fd);
    logger->fd = -1;
    return KAVRO_STATUS_OK;
}

kavro_core_status kavro_core_logging_logv(void* logCookie, kavro_core_log_priority priority,
                                          const char* format, va_list args)
{
    if (format == nullptr) return KAVRO_STATUS_INVALID_ARGUMENT;
    // Dropped lines cost no formatting: tracing calls sit on every step of a walk.
    if (!wanted(static_cast<Logger*>(logCookie), priority)) return KAVRO_STATUS_OK;
    char small[512];
    va_list copy;
    va_copy(copy, args);
    const int length = std::vsnprintf(small, sizeof small, format, copy);
    va_end(copy);
    if (length < 0) return KAVRO_STATUS_INVALID_ARGUMENT;
    if (static_cast<size_t>(length) < sizeof small) {
        emit(static_cast<Logger*>(logCookie), priority, small);
        return KAVRO_STATUS_OK;
    }
    std::vector<char> large(static_cast<size_t>(length) + 1);
    std::vsnprintf(large.data(), large.size(), format, args);
    emit(static_cast<Logger*>(logCookie), priority, large.data());
    return KAVRO_STATUS_OK;
}

kavro_core_status kavro_core_logging_log(void* logCookie, kavro_core_log_priority priority,
                                         const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const kavro_core_status status = kavro_core_logging_logv(logCookie, priority, format, args);
    va_end(args);
    return status;
}

}  // extern "C"
