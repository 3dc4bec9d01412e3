// recording_store as a process: generate, import and serve, readiness, stop signals, exit
// codes and the one-line errors.
#include <signal.h>

#include <chrono>
#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/PrivateBus.h"
#include "support/ProcessRunner.h"
#include "unit/store/StoreTestFiles.h"

namespace {

using namespace std::chrono_literals;
using rstest::TempDir;
using testing::HasSubstr;

const std::string kStore = std::string(RS_BIN_DIR) + "/recording_store";

bool oneLine(const std::string& text)
{
    return !text.empty() && text.find('\n') == text.size() - 1;
}

class StoreProcess : public testing::Test {
protected:
    std::map<std::string, std::string> busEnv() const
    {
        return {{"DBUS_SYSTEM_BUS_ADDRESS", bus_.address()}};
    }

    std::string generated(const std::string& name)
    {
        const std::string path = dir_.file(name);
        const rstest::RunResult run =
            rstest::runToEnd(kStore, {"generate", path, "--duration", "10m"});
        EXPECT_TRUE(run.status.exited && run.status.code == 0) << run.err;
        return path;
    }

    TempDir dir_;
    rstest::PrivateBus bus_;
};

// A second instance is refused, naming what it could not own; the first serves on and stops
// cleanly on SIGTERM. (What the store answers is every integration test's.)
TEST_F(StoreProcess, ASecondInstanceIsRefusedWithOneLine)
{
    const std::string path = generated("demo.db");
    rstest::ProcessRunner serve(kStore, {"serve", path}, busEnv());
    serve.start();
    ASSERT_TRUE(serve.waitForNotify("READY=1"));
    rstest::ProcessRunner second(kStore, {"serve", path}, busEnv());
    second.start();
    const auto refused = second.waitForExit();
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->code, 1);
    EXPECT_THAT(second.stderrText(), HasSubstr("cannot own kavro.recording_control"));
    EXPECT_TRUE(oneLine(second.stderrText())) << second.stderrText();

    serve.sendSignal(SIGTERM);
    const auto status = serve.waitForExit();
    ASSERT_TRUE(status);
    EXPECT_TRUE(status->exited && status->code == 0);
    EXPECT_EQ(serve.stderrText() + serve.stdoutText(), "");
}

// Why a file is refused is the recording's own test; here, how the process says so.
TEST_F(StoreProcess, AnUnservableFileIsOneLineOnStandardErrorAndExitStatusOne)
{
    const std::string path = dir_.write("e.db", "");
    rstest::ProcessRunner serve(kStore, {"serve", path}, busEnv());
    serve.start();
    const auto status = serve.waitForExit();
    ASSERT_TRUE(status);
    EXPECT_EQ(status->code, 1);
    EXPECT_TRUE(oneLine(serve.stderrText())) << serve.stderrText();
    EXPECT_THAT(serve.stderrText(), HasSubstr(path + ": not a recording"));
    EXPECT_THAT(serve.notifications(), testing::Not(testing::Contains("READY=1")));
}

TEST_F(StoreProcess, GenerateKeepsAnExistingFileUnlessForced)
{
    const std::string path = generated("demo.db");
    const rstest::RunResult again =
        rstest::runToEnd(kStore, {"generate", path, "--duration", "1m"});
    EXPECT_EQ(again.status.code, 1);
    EXPECT_THAT(again.err, HasSubstr("already exists"));
    const rstest::RunResult forced =
        rstest::runToEnd(kStore, {"generate", path, "--duration", "1m", "--force", "--seed", "3"});
    EXPECT_EQ(forced.status.code, 0) << forced.err;
    EXPECT_THAT(forced.out, HasSubstr("2024-01-01T00:01:00Z"));
    const rstest::RunResult badOption =
        rstest::runToEnd(kStore, {"generate", path, "--duration", "soon"});
    EXPECT_NE(badOption.status.code, 0);
    EXPECT_THAT(badOption.err, HasSubstr("--duration"));
}

TEST_F(StoreProcess, ImportReportsBadLinesAndLeavesNoFileBehind)
{
    const std::string events = dir_.write("e.csv", "100,0,1\n100,1,one,VIDEO001\n");
    const std::string target = dir_.file("mine.db");
    const rstest::RunResult bad = rstest::runToEnd(kStore, {"import", target, "--events", events});
    EXPECT_EQ(bad.status.code, 1);
    EXPECT_THAT(bad.err, HasSubstr(events + ":2: value \"one\" is not 0 or 1"));
    EXPECT_THAT(bad.err, HasSubstr("nothing was loaded"));
    EXPECT_FALSE(std::filesystem::exists(target));

    dir_.write("e.csv", "100,0,1\n100,1,1,VIDEO001\n");
    const rstest::RunResult good = rstest::runToEnd(kStore, {"import", target, "--events", events});
    EXPECT_EQ(good.status.code, 0) << good.err;
    EXPECT_THAT(good.out, HasSubstr("loaded 1 history events (2 properties)"));
    const rstest::RunResult again =
        rstest::runToEnd(kStore, {"import", target, "--events", events});
    EXPECT_THAT(again.out, HasSubstr("skipped 1 history events and 0 metadata documents"));
}

}  // namespace
