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

#include <cctype>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
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
// (as their sysusers.d files would) when running as root and they are missing.
std::string accountsProblem()
{
    if (geteuid() != 0) return "not running as root: cannot run processes as the service users";
    const auto run = [](const std::string& tool, std::vector<std::string> args) {
        const auto r = rstest::runToEnd(tool, args);
        return r.status.exited && r.status.code == 0 ? std::string() : tool + ": " + r.err;
    };
    for (const std::string& user : {kSearchUser, kStoreUser}) {
        if (getpwnam(user.c_str()) != nullptr) continue;
        const std::string problem =
            run("/usr/sbin/useradd", {"--system", "--no-create-home", "--user-group", "--shell",
                                      "/usr/sbin/nologin", user});
        // Another test process may have created it meanwhile.
        if (!problem.empty() && getpwnam(user.c_str()) == nullptr) {
            return "cannot create user " + user + ": " + problem;
        }
    }
    if (getgrnam(kClientsGroup.c_str()) == nullptr) {
        const std::string problem = run("/usr/sbin/groupadd", {"--system", kClientsGroup});
        if (!problem.empty() && getgrnam(kClientsGroup.c_str()) == nullptr) {
            return "cannot create group " + kClientsGroup + ": " + problem;
        }
    }
    if (getpwnam(kOutsider.c_str()) == nullptr) return "no user " + kOutsider;
    return "";
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
           "<includedir>" + includeDir + "</includedir>";
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
    for (const auto deadline = std::chrono::steady_clock::now() + 20s;
         std::chrono::steady_clock::now() < deadline;) {
        bool owned = false;
        bus->callMethod("NameHasOwner").onInterface("org.freedesktop.DBus").withArguments(name)
            .storeResultsTo(owned);
        if (owned) return true;
        std::this_thread::sleep_for(20ms);  // polling a condition, bounded by the deadline
    }
    return false;
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

BusAnswer requestName(const std::string& address, const std::string& user,
                      const std::string& name)
{
    return dbusSend(address, user, "",
                    {"--dest=org.freedesktop.DBus", "/org/freedesktop/DBus",
                     "org.freedesktop.DBus.RequestName", "string:" + name, "uint32:4"});
}

bool deniedAccess(const BusAnswer& answer)
{
    return !answer.ok && answer.text.find("org.freedesktop.DBus.Error.AccessDenied") !=
                             std::string::npos;
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

struct OwnCase {
    std::string user;
    std::string name;
    bool allowed;
};

class AccessOwnership : public AccessPolicy, public testing::WithParamInterface<OwnCase> {};

TEST_P(AccessOwnership, OnlyTheServicesOwnUserOwnsItsName)
{
    const OwnCase& c = GetParam();
    const BusAnswer answer = requestName(bus_->address(), c.user, c.name);
    if (c.allowed) {
        EXPECT_TRUE(answer.ok) << answer.text;
        EXPECT_NE(answer.text.find("uint32 1"), std::string::npos) << "primary owner: " << answer.text;
    } else {
        EXPECT_TRUE(deniedAccess(answer)) << answer.text;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Names, AccessOwnership,
    testing::Values(OwnCase{kSearchUser, "kavro.recording_search", true},
                    OwnCase{kStoreUser, "kavro.recording_control", true},
                    OwnCase{kStoreUser, "kavro.recording_information", true},
                    OwnCase{kStoreUser, "kavro.recording_data_access", true},
                    OwnCase{kOutsider, "kavro.recording_search", false},
                    OwnCase{kOutsider, "kavro.recording_data_access", false},
                    OwnCase{kStoreUser, "kavro.recording_search", false},
                    OwnCase{kSearchUser, "kavro.recording_control", false},
                    OwnCase{kSearchUser, "kavro.recording_data_access", false}),
    [](const auto& info) {
        std::string name = info.param.user + "_" + info.param.name.substr(6) +
                           (info.param.allowed ? "_Allowed" : "_Denied");
        for (char& ch : name) {
            if (!isalnum(static_cast<unsigned char>(ch))) ch = '_';
        }
        return name;
    });

// The real store and service, each started as its own user on the policy bus.
class AccessWithServices : public AccessPolicy {
protected:
    void SetUp() override
    {
        AccessPolicy::SetUp();
        if (IsSkipped()) return;
        // The store's user reads the recording; the services' users write their logs here.
        const std::string recording = dir_->file("recording.db");
        const auto generated = rstest::runToEnd(
            reliability::bin("recording_store"),
            {"generate", recording, "--duration", "10m", "--rate", "1", "--track-on", "60",
             "--track-off", "30"});
        ASSERT_EQ(generated.status.code, 0) << generated.err;
        const std::string log = dir_->file("kavro.log");
        std::ofstream(log).flush();
        chmod(log.c_str(), 0666);
        chmod(recording.c_str(), 0644);
        const std::map<std::string, std::string> env{{"DBUS_SYSTEM_BUS_ADDRESS", bus_->address()},
                                                     {"KAVRO_LOG_FILE", log}};
        store_ = std::make_unique<rstest::ProcessRunner>(
            "/usr/bin/setpriv",
            asUser(kStoreUser, "", {reliability::bin("recording_store"), "serve", recording}),
            env);
        store_->start();
        ASSERT_TRUE(waitForOwner(bus_->address(), "kavro.recording_data_access")) << store_->stderrText();
        service_ = std::make_unique<rstest::ProcessRunner>(
            "/usr/bin/setpriv", asUser(kSearchUser, "", {reliability::bin("recording_search")}),
            env);
        service_->start();
        ASSERT_TRUE(waitForOwner(bus_->address(), "kavro.recording_search")) << service_->stderrText();
    }
    void TearDown() override
    {
        for (auto* p : {service_.get(), store_.get()}) {
            if (p == nullptr) continue;
            p->sendSignal(SIGTERM);
            const auto status = p->waitForExit(15s);
            EXPECT_TRUE(status && status->exited && status->code == 0) << p->stderrText();
        }
    }

    BusAnswer createNoop(const std::string& user, const std::string& groups)
    {
        return dbusSend(bus_->address(), user, groups,
                        {"--dest=kavro.recording_search", "/kavro/recording_search",
                         "kavro.recording_search.CreateNoopSearch"});
    }
    BusAnswer getTracks(const std::string& user)
    {
        return dbusSend(bus_->address(), user, "",
                        {"--dest=kavro.recording_control", "/kavro/recording_control",
                         "kavro.recording_control.GetTracks"});
    }

    std::unique_ptr<rstest::ProcessRunner> store_;
    std::unique_ptr<rstest::ProcessRunner> service_;
};

TEST_F(AccessWithServices, RootAndTheClientsGroupMayCallTheSearchServiceOthersAreDenied)
{
    const BusAnswer root = createNoop("root", "");
    EXPECT_TRUE(root.ok) << root.text;
    EXPECT_NE(root.text.find("int32"), std::string::npos) << root.text;

    const BusAnswer member = createNoop(kOutsider, kClientsGroup);
    EXPECT_TRUE(member.ok) << "a member of " << kClientsGroup << ": " << member.text;

    const BusAnswer outsider = createNoop(kOutsider, "");
    EXPECT_TRUE(deniedAccess(outsider)) << "an outsider: " << outsider.text;
    const BusAnswer store = createNoop(kStoreUser, "");
    EXPECT_TRUE(deniedAccess(store)) << "the store's user: " << store.text;
}

TEST_F(AccessWithServices, OnlyTheSearchServicesUserAndRootMayCallTheRecordingServices)
{
    EXPECT_TRUE(getTracks(kSearchUser).ok);
    EXPECT_TRUE(getTracks("root").ok);
    const BusAnswer outsider = getTracks(kOutsider);
    EXPECT_TRUE(deniedAccess(outsider)) << outsider.text;
    EXPECT_TRUE(deniedAccess(dbusSend(bus_->address(), kOutsider, kClientsGroup,
                                      {"--dest=kavro.recording_data_access",
                                       "/kavro/recording_data_access",
                                       "kavro.recording_data_access.GetFirstRecordingHistoryEventTime"})))
        << "the search service's clients do not reach the recording services directly";
}

TEST_F(AccessWithServices, SearchesWorkEndToEndUnderThePolicy)
{
    rstest::SearchClient client(bus_->address());
    const auto created = client.createEventSearch(1704067200, 0, 1704067800, 0, -1, 0, 0, 1);
    ASSERT_TRUE(created.ok()) << created.errorName << ": " << created.errorMessage;
    ASSERT_GT(created.value, 0);
    const auto id = static_cast<uint32_t>(created.value);
    ASSERT_TRUE(client.beginSearch(id).ok());
    ASSERT_TRUE(client.waitForCompleted(id, 30s));
    EXPECT_GT(reliability::resultsOf(client, id).size(), 2u)
        << "the service, as its own user, reached the store";
    EXPECT_TRUE(client.endSearch(id).ok());
}

// recording_search run as a user that may not own its name; returns its standard error.
std::string startAsOutsider(const rstest::PrivateBus& bus)
{
    rstest::ProcessRunner service(
        "/usr/bin/setpriv", asUser(kOutsider, "", {reliability::bin("recording_search")}),
        {{"DBUS_SYSTEM_BUS_ADDRESS", bus.address()}, {"KAVRO_LOG_FILE", "/dev/null"}});
    service.start();
    const auto status = service.waitForExit(15s);
    EXPECT_TRUE(status.has_value());
    if (status) {
        EXPECT_EQ(status->code, 1);
    }
    return service.stderrText();
}

TEST_F(AccessPolicy, ServiceStartedAsAnotherUserFailsOnItsFatalPath)
{
    const std::string err = startAsOutsider(*bus_);
    EXPECT_EQ(err.rfind("ERROR: recording_search caught exception: ", 0), 0u) << err;
    EXPECT_NE(err.find("take the bus name kavro.recording_search"), std::string::npos) << err;
    EXPECT_NE(err.find("Permission denied"), std::string::npos)
        << "the bus's refusal, not some other failure: " << err;
}

TEST_F(AccessPolicy, RefusedNameIsNotReportedAsAlreadyOwned)
{
    const std::string err = startAsOutsider(*bus_);
    EXPECT_EQ(err.find("already owned"), std::string::npos)
        << "an operator would look for a second instance that does not exist: " << err;
}

}  // namespace
