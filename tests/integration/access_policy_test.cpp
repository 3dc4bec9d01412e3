// The bus policy files on a bus configured like a device's system bus: deny by default, our
// files pulled in with <includedir>. Only the services' own users may own their names, only
// root and members of recording-search-clients may call the search service, and only the
// search service's user (and root) may call the recording services.
//
// Needs root (to create the service users when they are missing and to run processes as
// them); otherwise every test is skipped with the reason.

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>

#include "fault_stack.h"
#include "support/PrivateBus.h"
#include "support/ProcessRunner.h"
#include "support/SearchClient.h"
#include "support/TempDir.h"

namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

const std::string kSearchUser = "recording-search";
const std::string kStoreUser = "recording-store";
const std::string kClientsGroup = "recording-search-clients";
const std::string kOutsider = "nobody";

// Why the access tests cannot run here, or empty when they can. Creates the service accounts
// from our own sysusers.d files, as the package's postinst does.
std::string accountsProblem()
{
    if (geteuid() != 0) return "not running as root: cannot run processes as the service users";
    const std::string src = RS_SOURCE_DIR;
    const auto r =
        rstest::runToEnd("systemd-sysusers", {src + "/service/recording_search.sysusers.conf",
                                              src + "/store/recording_store.sysusers.conf"});
    if (!r.status.exited || r.status.code != 0) return "systemd-sysusers: " + r.err;
    return getpwnam(kOutsider.c_str()) == nullptr ? "no user " + kOutsider : "";
}

// Debian's system bus: its default policy, verbatim in substance, and our policy files.
std::string systemBusPolicy(const std::string& includeDir)
{
    return "<policy context='default'><allow user='*'/><deny own='*'/>"
           "<deny send_type='method_call'/><allow send_type='signal'/>"
           "<allow send_requested_reply='true' send_type='method_return'/>"
           "<allow send_requested_reply='true' send_type='error'/>"
           "<allow receive_type='method_call'/><allow receive_type='method_return'/>"
           "<allow receive_type='error'/><allow receive_type='signal'/>"
           "<allow send_destination='org.freedesktop.DBus' send_interface='org.freedesktop.DBus'/>"
           "<allow send_destination='org.freedesktop.DBus'"
           " send_interface='org.freedesktop.DBus.Introspectable'/>"
           "<allow send_destination='org.freedesktop.DBus'"
           " send_interface='org.freedesktop.DBus.Properties'/>"
           "<deny send_destination='org.freedesktop.DBus' send_interface='org.freedesktop.DBus'"
           " send_member='UpdateActivationEnvironment'/>"
           "<deny send_destination='org.freedesktop.DBus'"
           " send_interface='org.freedesktop.DBus.Debug.Stats'/></policy>"
           "<includedir>" +
           includeDir + "</includedir>";
}

// A directory every user can read, with a copy of our policy files in system.d/.
std::unique_ptr<rstest::TempDir> policyDir()
{
    auto dir = std::make_unique<rstest::TempDir>("reliability-policy");
    chmod(dir->path().c_str(), 0755);
    fs::create_directory(dir->file("system.d"));
    for (const auto& entry : fs::directory_iterator(std::string(RS_SOURCE_DIR) + "/kavro/policy")) {
        if (entry.path().extension() == ".conf") {
            fs::copy_file(entry.path(), dir->file("system.d/" + entry.path().filename().string()));
        }
    }
    return dir;
}

// Waits until the name has an owner (asking the bus as root, which the policy allows).
bool waitForOwner(const std::string& address, const std::string& name)
{
    auto connection = sdbus::createSessionBusConnectionWithAddress(address);
    auto bus = sdbus::createProxy(*connection, "org.freedesktop.DBus", "/org/freedesktop/DBus");
    return rstest::pollUntil(
        [&] {
            bool owned = false;
            bus->callMethod("NameHasOwner")
                .onInterface("org.freedesktop.DBus")
                .withArguments(name)
                .storeResultsTo(owned);
            return owned;
        },
        20s);
}

// setpriv's arguments that run a command as the user, with only the given extra groups.
std::vector<std::string> asUser(const std::string& user, const std::string& groups,
                                std::vector<std::string> command)
{
    // The primary group by number: nobody's is not called nobody everywhere.
    const passwd* account = getpwnam(user.c_str());
    const std::string gid = account ? std::to_string(account->pw_gid) : user;
    std::vector<std::string> args{"--reuid=" + user, "--regid=" + gid};
    if (groups.empty()) {
        args.push_back("--clear-groups");
    } else {
        args.push_back("--groups=" + groups);
    }
    args.insert(args.end(), command.begin(), command.end());
    return args;
}

// What the bus answered one dbus-send: the first reply line, or the error name.
struct BusAnswer {
    bool ok = false;
    std::string text;
};

BusAnswer dbusSend(const std::string& address, const std::string& user, const std::string& groups,
                   std::vector<std::string> call)
{
    std::vector<std::string> command{"/usr/bin/dbus-send", "--bus=" + address, "--print-reply",
                                     "--reply-timeout=5000"};
    command.insert(command.end(), call.begin(), call.end());
    const auto r = rstest::runToEnd("/usr/bin/setpriv", asUser(user, groups, command));
    BusAnswer answer;
    answer.ok = r.status.exited && r.status.code == 0;
    answer.text = answer.ok ? r.out : r.err;
    return answer;
}

BusAnswer requestName(const std::string& address, const std::string& user, const std::string& name)
{
    return dbusSend(address, user, "",
                    {"--dest=org.freedesktop.DBus", "/org/freedesktop/DBus",
                     "org.freedesktop.DBus.RequestName", "string:" + name, "uint32:4"});
}

bool deniedAccess(const BusAnswer& answer)
{
    return !answer.ok &&
           answer.text.find("org.freedesktop.DBus.Error.AccessDenied") != std::string::npos;
}

class AccessPolicy : public testing::Test {
protected:
    void SetUp() override
    {
        const std::string problem = accountsProblem();
        if (!problem.empty()) GTEST_SKIP() << problem;
        dir_ = policyDir();
        bus_ = std::make_unique<rstest::PrivateBus>(systemBusPolicy(dir_->file("system.d")));
    }

    std::unique_ptr<rstest::TempDir> dir_;
    std::unique_ptr<rstest::PrivateBus> bus_;
};

// Each user asks the bus for each of our names; only the services' own users get theirs.
TEST_F(AccessPolicy, OnlyTheServicesOwnUserOwnsItsName)
{
    const struct {
        std::string user, name;
        bool allowed;
    } cases[] = {{kSearchUser, "kavro.recording_search", true},
                 {kStoreUser, "kavro.recording_control", true},
                 {kStoreUser, "kavro.recording_information", true},
                 {kStoreUser, "kavro.recording_data_access", true},
                 {kOutsider, "kavro.recording_search", false},
                 {kOutsider, "kavro.recording_data_access", false},
                 {kStoreUser, "kavro.recording_search", false},
                 {kSearchUser, "kavro.recording_control", false},
                 {kSearchUser, "kavro.recording_data_access", false}};
    for (const auto& c : cases) {
        const BusAnswer answer = requestName(bus_->address(), c.user, c.name);
        if (c.allowed) {
            EXPECT_NE(answer.text.find("uint32 1"), std::string::npos)
                << c.user << " is primary owner of " << c.name << ": " << answer.text;
        } else {
            EXPECT_TRUE(deniedAccess(answer))
                << c.user << " owns " << c.name << ": " << answer.text;
        }
    }
}

// The real store and service, each started as its own user on the policy bus: who may call
// whom, and a search through both of them.
TEST_F(AccessPolicy, OnlyAllowedUsersCallEachServiceAndSearchesWorkUnderThePolicy)
{
    // The store's user reads the recording; the services' users write their logs here.
    const std::string recording = dir_->file("recording.db"), log = dir_->file("kavro.log");
    const auto generated = rstest::runToEnd(reliability::bin("recording_store"),
                                            {"generate", recording, "--duration", "10m", "--rate",
                                             "1", "--track-on", "60", "--track-off", "30"});
    ASSERT_EQ(generated.status.code, 0) << generated.err;
    std::ofstream(log).flush();
    chmod(log.c_str(), 0666);
    chmod(recording.c_str(), 0644);
    const std::map<std::string, std::string> env{{"DBUS_SYSTEM_BUS_ADDRESS", bus_->address()},
                                                 {"KAVRO_LOG_FILE", log}};
    rstest::ProcessRunner store(
        "/usr/bin/setpriv",
        asUser(kStoreUser, "", {reliability::bin("recording_store"), "serve", recording}), env);
    store.start();
    ASSERT_TRUE(waitForOwner(bus_->address(), "kavro.recording_data_access")) << store.stderrText();
    rstest::ProcessRunner service(
        "/usr/bin/setpriv", asUser(kSearchUser, "", {reliability::bin("recording_search")}), env);
    service.start();
    ASSERT_TRUE(waitForOwner(bus_->address(), "kavro.recording_search")) << service.stderrText();

    const std::vector<std::string> search{"--dest=kavro.recording_search",
                                          "/kavro/recording_search",
                                          "kavro.recording_search.CreateNoopSearch"};
    const std::vector<std::string> tracks{"--dest=kavro.recording_control",
                                          "/kavro/recording_control",
                                          "kavro.recording_control.GetTracks"};
    const std::vector<std::string> data{
        "--dest=kavro.recording_data_access", "/kavro/recording_data_access",
        "kavro.recording_data_access.GetFirstRecordingHistoryEventTime"};
    const struct {
        std::string user, groups;
        const std::vector<std::string>& call;
        bool allowed;
    } cases[] = {{"root", "", search, true},
                 {kOutsider, kClientsGroup, search, true},
                 {kStoreUser, "", search, false},
                 {kSearchUser, "", tracks, true},
                 {"root", "", tracks, true},
                 {kOutsider, "", tracks, false},
                 // the search service's clients do not reach the recording services directly
                 {kOutsider, kClientsGroup, data, false}};
    for (const auto& c : cases) {
        const BusAnswer answer = dbusSend(bus_->address(), c.user, c.groups, c.call);
        const std::string who = c.user + " (groups " + c.groups + ") calling " + c.call[0] + ": ";
        if (c.allowed) {
            EXPECT_TRUE(answer.ok) << who << answer.text;
        } else {
            EXPECT_TRUE(deniedAccess(answer)) << who << answer.text;
        }
    }

    // Someone outside the group reads what to do, not the bus's error name.
    const auto refused = rstest::runToEnd(
        "/usr/bin/setpriv", asUser(kOutsider, "", {reliability::bin("recsearch"), "noop"}), env);
    EXPECT_EQ(refused.status.code, 8) << refused.err;
    EXPECT_NE(refused.err.find("members of the group recording-search-clients"), std::string::npos)
        << refused.err;

    rstest::SearchClient client(bus_->address());
    const auto run = reliability::runSearch(
        client, [&] { return client.createEventSearch(1704067200, 0, 1704067800, 0, -1, 0, 0, 1); },
        30s);
    ASSERT_TRUE(run.completed);
    EXPECT_GT(run.results.size(), 2u) << "the service, as its own user, reached the store";

    for (auto* p : {&service, &store}) {
        p->sendSignal(SIGTERM);
        const auto status = p->waitForExit(15s);
        EXPECT_TRUE(status && status->exited && status->code == 0) << p->stderrText();
    }
}

}  // namespace
