// The devices file: what a person writes, and the line named in each error.

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "client/ClientError.h"
#include "client/DeviceList.h"
#include "support/TempDir.h"

namespace {

TEST(DeviceList, ReadsDevicesBesideTheirTokensAndChoosesByName)
{
    const rstest::TempDir dir("rs-device-list");
    dir.write("front.token", "secret-1\n");
    dir.write("back.token", "secret-2\r\n");
    dir.write("ca.pem", "-----BEGIN CERTIFICATE-----\n");
    const std::string file = dir.write("devices",
                                       "# site\n\nfront https://10.0.0.5:8470/ front.token ca.pem\n"
                                       "back\thttp://127.0.0.1:8470 token=" +
                                           dir.file("back.token") + "\n");
    const auto devices = rsclient::readDevices(file);
    ASSERT_EQ(devices.size(), 2u);
    EXPECT_EQ(devices[0].name, "front");
    EXPECT_EQ(devices[0].url, "https://10.0.0.5:8470");
    EXPECT_EQ(devices[0].token, "secret-1");
    EXPECT_EQ(devices[0].caFile, dir.file("ca.pem"));
    EXPECT_EQ(devices[1].token, "secret-2");
    EXPECT_EQ(rsclient::chooseDevices(devices, {"back"}).at(0).name, "back");
    EXPECT_THROW(rsclient::chooseDevices(devices, {"side"}), rsclient::ClientError);
}

TEST(DeviceList, NamesTheLineOfEachBadEntry)
{
    const rstest::TempDir dir("rs-device-list");
    const std::string token = dir.write("token", "t\n");
    const std::string empty = dir.write("empty", "\n");
    const std::string good = "ok https://camera:8470 " + token + "\n";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"a b\n", "line 2: expected NAME URL TOKEN_FILE [CA_FILE], found 2 fields"},
        {"x http://10.0.0.5:8470 " + token + "\n",
         "line 2: http://10.0.0.5:8470: http:// is for loopback only"},
        {"x ftp://camera " + token + "\n",
         "line 2: ftp://camera: the URL must start with https://"},
        {"ok https://other " + token + "\n", "line 2: ok is named twice"},
        {"x https://camera " + dir.file("missing") + "\n", "line 2: x: cannot read its token file"},
        {"x https://camera " + empty + "\n", "line 2: x: its token file " + empty + " is empty"},
        {"x https://camera " + token + " " + dir.file("no-ca") + "\n",
         "line 2: x: cannot read its CA file"},
        {"bad/name https://camera " + token + "\n", "line 2: the name bad/name must be"},
    };
    for (const auto& [line, message] : cases) {
        const std::string file = dir.write("devices", good + line);
        try {
            rsclient::readDevices(file);
            ADD_FAILURE() << line << "was taken";
        } catch (const rsclient::ClientError& e) {
            EXPECT_EQ(e.kind(), rsclient::ErrorKind::Usage);
            EXPECT_NE(std::string(e.what()).find("devices file " + file + " " + message),
                      std::string::npos)
                << e.what();
        }
    }
}

}  // namespace
