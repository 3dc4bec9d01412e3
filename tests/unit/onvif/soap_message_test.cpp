// What a SOAP request may carry, read without trust: the schema's values, the envelope, the
// WS-Security token, and the users file.
#include <chrono>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "onvif/OnvifUsers.h"
#include "onvif/SoapFault.h"
#include "onvif/SoapMessage.h"
#include "onvif/XsdValues.h"
#include "support/TempDir.h"

namespace {

using namespace std::chrono_literals;

TEST(XsdValues, DateTimesInAnyZoneAndDurationsOfFixedLength)
{
    struct Case {
        const char* text;
        std::optional<uint32_t> sec;
        uint32_t usec;
    } times[] = {
        {"2024-01-01T00:00:00Z", 1704067200, 0},
        {" 2024-01-01T01:00:00.25+01:00 ", 1704067200, 250000},
        {"2023-12-31T19:00:00-05:00", 1704067200, 0},
        {"2024-01-01T00:00:00.1234567Z", 1704067200, 123456},  // beyond microseconds: cut
        {"2024-01-01T00:00:00", 1704067200, 0},                // no zone: UTC
        {"2024-04-31T00:00:00Z", std::nullopt, 0},
        {"2024-13-01T00:00:00Z", std::nullopt, 0},
        {"1969-12-31T23:59:59Z", std::nullopt, 0},
        {"2106-02-07T06:28:16Z", std::nullopt, 0},
        {"2024-01-01T00:00:00.Z", std::nullopt, 0},
        {"2024-01-01T00:00:00+1:00", std::nullopt, 0},
        {"2024-01-01", std::nullopt, 0},
    };
    for (const auto& c : times) {
        std::string why;
        const auto t = onvif::readDateTime(c.text, &why);
        EXPECT_EQ(t.has_value(), c.sec.has_value()) << c.text;
        if (t && c.sec) {
            EXPECT_EQ(t->sec, *c.sec) << c.text;
            EXPECT_EQ(t->usec, c.usec) << c.text;
        }
        if (!t) {
            EXPECT_FALSE(why.empty()) << c.text;
        }
    }
    EXPECT_EQ(onvif::dateTimeText({1704067200, 250000}), "2024-01-01T00:00:00.25Z");

    struct Span {
        const char* text;
        std::optional<std::chrono::milliseconds> value;
    } durations[] = {
        {"PT10S", 10s},       {"PT0.5S", 500ms},       {"P1DT2H", 26h},       {"PT1M30S", 90s},
        {"P1W", 168h},        {"P1Y", std::nullopt},   {"P1M", std::nullopt}, {"PT", std::nullopt},
        {"10", std::nullopt}, {"PT-5S", std::nullopt}, {"P1H", std::nullopt}, {"PT5", std::nullopt},
    };
    for (const auto& d : durations) {
        std::string why;
        EXPECT_EQ(onvif::readDuration(d.text, &why), d.value) << d.text;
    }
}

std::string envelope(const std::string& header, const std::string& body)
{
    return "<e:Envelope xmlns:e=\"http://www.w3.org/2003/05/soap-envelope\">" + header +
           "<e:Body>" + body + "</e:Body></e:Envelope>";
}

std::optional<onvif::SoapFault::Code> faultOf(const std::string& text)
{
    try {
        onvif::SoapRequest request(text);
    } catch (const onvif::SoapFault& fault) {
        return fault.code();
    }
    return std::nullopt;
}

TEST(SoapRequest, ReadsTheOperationAndTheTokenAndRefusesWhatItCannotHonour)
{
    const onvif::SoapRequest request(envelope(
        "<e:Header><a:Action xmlns:a=\"http://www.w3.org/2005/08/addressing\" "
        "e:mustUnderstand=\"true\">x</a:Action><s:Security xmlns:s=\"urn:wsse\" "
        "e:mustUnderstand=\"1\"><s:UsernameToken><s:Username>vms</s:Username><s:Password "
        "Type=\"urn:x#PasswordDigest\">d</s:Password><s:Nonce>bg==</s:Nonce><u:Created "
        "xmlns:u=\"urn:wsu\">2024-01-01T00:00:00Z</u:Created></s:UsernameToken></s:Security>"
        "</e:Header>",
        "<t:FindEvents xmlns:t=\"http://www.onvif.org/ver10/search/wsdl\"/>"));
    EXPECT_EQ(request.operation(), "FindEvents");
    EXPECT_EQ(request.operationNamespace(), onvif::kSearchNamespace);
    ASSERT_TRUE(request.usernameToken());
    EXPECT_EQ(request.usernameToken()->user, "vms");
    EXPECT_TRUE(request.usernameToken()->digest);
    EXPECT_EQ(request.usernameToken()->created, "2024-01-01T00:00:00Z");

    using Code = onvif::SoapFault::Code;
    std::string deep;
    for (int i = 0; i < 40; ++i) deep = "<x>" + deep + "</x>";
    struct Case {
        const char* what;
        std::string text;
        Code code;
    } cases[] = {
        {"not XML", "GET / HTTP/1.1", Code::Sender},
        {"a DTD", "<!DOCTYPE e:Envelope []>" + envelope("", "<o/>"), Code::Sender},
        {"no body", envelope("", "").replace(envelope("", "").find("<e:Body>"), 17, ""),
         Code::Sender},
        {"an empty body", envelope("", ""), Code::Sender},
        {"nested too deep", envelope("", deep), Code::Sender},
        {"SOAP 1.1",
         "<e:Envelope xmlns:e=\"http://schemas.xmlsoap.org/soap/envelope/\"><e:Body>"
         "<o/></e:Body></e:Envelope>",
         Code::VersionMismatch},
        {"a header block to understand",
         envelope("<e:Header><x:Billing xmlns:x=\"urn:x\" e:mustUnderstand=\"true\"/></e:Header>",
                  "<o/>"),
         Code::MustUnderstand},
    };
    for (const auto& c : cases) EXPECT_EQ(faultOf(c.text), c.code) << c.what;
    EXPECT_EQ(faultOf(envelope("<e:Header><x:Hint xmlns:x=\"urn:x\"/></e:Header>", "<o/>")),
              std::nullopt);
}

TEST(OnvifUsers, ADigestIsSha1OfNonceCreatedAndPasswordAndPlainTextStaysOnThisMachine)
{
    // As any WS-Security client computes it: base64(SHA-1("0123456789abcdef" +
    // "2024-01-01T00:00:00Z" + "secret")).
    EXPECT_EQ(
        onvif::OnvifUsers::passwordDigest("0123456789abcdef", "2024-01-01T00:00:00Z", "secret"),
        "W+AMPWIcgBDGW9XpBeBhrAdNo+g=");

    // A password in the clear only from this machine (the face tells which).
    onvif::OnvifUsers later(onvif::UserList{{"vms", "secret"}});
    const auto at = std::chrono::system_clock::time_point(1704067200s);
    const onvif::UsernameToken plain{"vms", "secret", false, "", ""};
    EXPECT_EQ(later.authenticate(plain, true, at), "vms");
    EXPECT_THROW(later.authenticate(plain, false, at), onvif::SoapFault);
}

TEST(OnvifUsers, TheUsersFileIsANameAndAPasswordALine)
{
    const rstest::TempDir dir("rs-onvif-users");
    std::vector<std::string> warnings;
    const auto users = onvif::readUsersFile(
        dir.write("users", "# site\n\nvms  pass word \t\nadmin\tx\n"), &warnings);
    EXPECT_EQ(users, (onvif::UserList{{"vms", "pass word"}, {"admin", "x"}}));
    EXPECT_THROW(onvif::readUsersFile(dir.write("bad", "vms\n"), &warnings), std::runtime_error);
    EXPECT_THROW(onvif::readUsersFile(dir.file("absent"), &warnings), std::runtime_error);
}

}  // namespace
