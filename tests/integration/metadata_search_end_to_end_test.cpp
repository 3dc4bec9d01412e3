// A metadata search through the real recording_search and recording_store processes: the
// times the client receives are those of the documents that libxml2 alone says match.

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "end_to_end_recording.h"
#include "support/PlainXPath.h"
#include "support/SearchClient.h"

namespace {

using namespace e2e;
using rstest::SearchSignal;
using Kind = SearchSignal::Kind;
using namespace std::chrono_literals;

struct MetadataCase {
    const char* name;
    const char* xpath;
    int64_t startOffset, endOffset;  // from the first document
    int maxResults;
    size_t atLeast;  // matches the recording must hold, so that the comparison means something
};

void PrintTo(const MetadataCase& c, std::ostream* os) { *os << c.name; }

class MetadataSearchEndToEnd : public testing::TestWithParam<MetadataCase> {};

TEST_P(MetadataSearchEndToEnd, ReportsTheDocumentsThatLibxml2SaysMatch)
{
    const MetadataCase& c = GetParam();
    const RecordingOnDisk& r = RecordingOnDisk::get();
    const int64_t firstDocument = r.documents().begin()->first;
    const int64_t lastDocument = r.documents().rbegin()->first;
    const int64_t start = firstDocument + c.startOffset, end = firstDocument + c.endOffset;
    const bool forward = !(end < start);
    const std::string expression = *c.xpath ? c.xpath : "/";

    std::vector<int64_t> times;
    for (const auto& [t, document] : r.documents()) {
        const bool inRange = t >= std::max(std::min(start, end), firstDocument) &&
                             t <= std::min(std::max(start, end), lastDocument);
        if (inRange && rstest::plainXPathEvaluation(expression, document) == 1) times.push_back(t);
    }
    ASSERT_GE(times.size(), c.atLeast);
    if (!forward) std::reverse(times.begin(), times.end());
    if (c.maxResults >= 0 && times.size() > size_t(c.maxResults)) times.resize(c.maxResults);

    rstest::ServiceStack stack(stackOptions());
    rstest::SearchClient client(stack.address());
    const auto created = client.createMetadataSearch(secOf(start), usecOf(start), secOf(end),
                                                     usecOf(end), c.maxResults, c.xpath);
    ASSERT_TRUE(created.ok()) << created.errorMessage;
    ASSERT_GT(created.value, 0);
    const uint32_t id = static_cast<uint32_t>(created.value);
    ASSERT_TRUE(client.beginSearch(id).ok());
    ASSERT_TRUE(client.waitForCompleted(id, 120s));

    std::vector<SearchSignal> expected;
    for (int64_t t : times) {
        SearchSignal s;
        s.kind = Kind::MetadataSearchResult;
        s.jobId = id;
        s.sec = secOf(t);
        s.usec = usecOf(t);
        expected.push_back(s);
    }
    SearchSignal done;
    done.kind = Kind::SearchCompleted;
    done.jobId = id;
    expected.push_back(done);
    EXPECT_EQ(client.signalsFor(id), expected);

    const auto ended = client.endSearch(id);
    ASSERT_TRUE(ended.ok());
    EXPECT_EQ(std::make_pair(ended.value.sec, ended.value.usec),
              std::make_pair(secOf(end), usecOf(end)));
    EXPECT_EQ(stack.stop(), "");
}

constexpr int64_t kSecond = 1000000;
constexpr int64_t kHour = 3600 * kSecond;

INSTANTIATE_TEST_SUITE_P(
    Searches, MetadataSearchEndToEnd,
    testing::Values(
        MetadataCase{"ConfidentPersonForward",
                     "//Object/Appearance/Class/Type[.='Person' and @Likelihood > 0.8]",
                     -10 * kSecond, kHour, -1, 5},
        MetadataCase{"MotionBackward",
                     "//NotificationMessage[@Topic='VideoSource/MotionAlarm']/Data/"
                     "SimpleItem[@Name='State' and @Value='true']",
                     kHour, -10 * kSecond, -1, 5},
        MetadataCase{"AnyVehicleLimited", "//Type[.='Vehicle']", 30 * kSecond + 500000,
                     500 * kSecond, 3, 3},
        MetadataCase{"EmptyExpressionMiddle", "", 200 * kSecond, 230 * kSecond, -1, 20},
        MetadataCase{"InvalidExpression", "//Object[", 0, kHour, -1, 0}),
    testing::PrintToStringParamName());

}  // namespace
