// main() of both test binaries: one private bus and one log file for the whole run.
#include <signal.h>
#include <stdlib.h>

#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/TempDir.h"
#include "support/TestEnvironment.h"

namespace rstest {

namespace {

std::unique_ptr<PrivateBus> theBus;
std::string theLogFile;

bool onlyListing(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--gtest_list_tests") == 0) return true;
    }
    return false;
}

// A fresh file per run unless the caller chose one; returns the directory to remove afterwards.
std::string prepareLogFile()
{
    if (const char* chosen = std::getenv("KAVRO_LOG_FILE"); chosen && *chosen) {
        theLogFile = chosen;
        return "";
    }
    const std::string dir = makeTempDir("rs-log");
    theLogFile = dir + "/kavro.log";
    setenv("KAVRO_LOG_FILE", theLogFile.c_str(), 1);
    return dir;
}

}  // namespace

PrivateBus& sharedBus() { return *theBus; }

std::string logFilePath() { return theLogFile; }

}  // namespace rstest

int main(int argc, char** argv)
{
    signal(SIGPIPE, SIG_IGN);
    testing::InitGoogleMock(&argc, argv);
    if (rstest::onlyListing(argc, argv)) return RUN_ALL_TESTS();

    std::string logDir;
    try {
        logDir = rstest::prepareLogFile();
        // Timeout tests wait for the call timeout; a short one keeps them fast.
        setenv("KAVRO_CALL_TIMEOUT_MS", "1000", 0);
        rstest::theBus = std::make_unique<rstest::PrivateBus>();
        rstest::theBus->exportAddress();
    } catch (const std::exception& e) {
        std::cerr << "test set-up failed: " << e.what() << '\n';
        return 1;
    }

    const int result = RUN_ALL_TESTS();

    rstest::theBus.reset();
    if (result == 0 && !logDir.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(logDir, ignored);
    } else if (!logDir.empty()) {
        std::cerr << "log of this run: " << rstest::logFilePath() << '\n';
    }
    return result;
}
