// main() of the unit and integration tests: one private bus and one log file for the whole run.
#include <signal.h>
#include <stdlib.h>

#include <filesystem>
#include <iostream>
#include <memory>
#include <string>

#include <gmock/gmock.h>

#include "support/PrivateBus.h"
#include "support/TempDir.h"

int main(int argc, char** argv)
{
    signal(SIGPIPE, SIG_IGN);
    testing::InitGoogleMock(&argc, argv);
    if (GTEST_FLAG_GET(list_tests)) return RUN_ALL_TESTS();
    std::string logDir;
    std::unique_ptr<rstest::PrivateBus> bus;
    try {
        // A fresh log file per run unless the caller chose one.
        if (const char* chosen = std::getenv("KAVRO_LOG_FILE"); !chosen || !*chosen) {
            logDir = rstest::makeTempDir("rs-log");
            setenv("KAVRO_LOG_FILE", (logDir + "/kavro.log").c_str(), 1);
        }
        // Timeout tests wait for the call timeout; a short one keeps them fast.
        setenv("KAVRO_CALL_TIMEOUT_MS", "1000", 0);
        bus = std::make_unique<rstest::PrivateBus>();
        bus->exportAddress();
    } catch (const std::exception& e) {
        std::cerr << "test set-up failed: " << e.what() << '\n';
        return 1;
    }
    const int result = RUN_ALL_TESTS();
    bus.reset();
    if (result == 0 && !logDir.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(logDir, ignored);
    } else if (!logDir.empty()) {
        std::cerr << "log of this run: " << logDir << "/kavro.log\n";
    }
    return result;
}
