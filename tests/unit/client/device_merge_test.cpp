// Many devices' lines in one time order: a line leaves only when no device still searching can
// send one that goes before it.

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "client/DeviceMerge.h"

namespace {

using rsclient::DeviceMerge;
using rsclient::MergeKey;

// One step of what the devices say: a line ("L"), a progress report ("P") or the end ("E").
struct Step {
    char what;
    std::size_t device;
    int64_t at = 0;
    int rank = 0;
};

struct Case {
    const char* name;
    std::size_t devices;
    bool backward;
    std::vector<Step> steps;
    // After each step, what has left so far, as "device:time" lines.
    std::vector<std::vector<std::string>> out;
};

std::vector<std::string> drain(DeviceMerge& merge)
{
    std::vector<std::string> left;
    while (auto line = merge.next()) left.push_back(line->text);
    return left;
}

TEST(DeviceMerge, LetsALineGoOnlyWhenEveryDeviceHasPassedIt)
{
    const std::vector<Case> cases = {
        {"waits for a device that has said nothing yet",
         3,
         false,
         {{'L', 0, 10}, {'L', 1, 5}, {'P', 2, 20}, {'E', 1}},
         {{}, {}, {"1:5"}, {"0:10"}}},
        {"a progress report passes a time; a line at the same time waits for an earlier device",
         2,
         false,
         {{'L', 1, 10}, {'P', 0, 10}, {'L', 0, 10}, {'E', 0}},
         {{}, {}, {"0:10"}, {"1:10"}}},
        {"a later device at the same time lets an earlier one's line go",
         2,
         false,
         {{'L', 0, 10}, {'P', 1, 10}},
         {{}, {"0:10"}}},
        {"a finished device holds nothing back, and its queued lines still go",
         2,
         false,
         {{'L', 0, 30}, {'L', 1, 20}, {'E', 1}, {'E', 0}},
         {{}, {"1:20"}, {"0:30"}, {}}},
        {"backward: the latest time first",
         2,
         true,
         {{'L', 0, 10}, {'L', 1, 30}, {'P', 0, 5}, {'E', 1}},
         {{}, {"1:30"}, {}, {"0:10"}}},
        {"a higher rank waits for every device to be done with the lower",
         2,
         false,
         {{'L', 0, 50, 1}, {'L', 1, 90}, {'E', 1}},
         {{}, {"1:90"}, {"0:50"}}},
    };
    for (const Case& c : cases) {
        DeviceMerge merge(c.devices, c.backward, 100);
        for (std::size_t i = 0; i < c.steps.size(); ++i) {
            const Step& s = c.steps[i];
            const MergeKey key{s.rank, s.at};
            if (s.what == 'L')
                merge.add(s.device, key, std::to_string(s.device) + ":" + std::to_string(s.at));
            if (s.what == 'P') merge.passed(s.device, key);
            if (s.what == 'E') merge.finish(s.device);
            EXPECT_EQ(drain(merge), c.out[i]) << c.name << ", after step " << i;
        }
    }
}

TEST(DeviceMerge, SaysWhenADeviceIsFullAndHowFarAllHaveCome)
{
    DeviceMerge merge(2, false, 2);
    merge.add(0, {0, 1}, "a");
    EXPECT_FALSE(merge.full(0));
    merge.add(0, {0, 2}, "b");
    EXPECT_TRUE(merge.full(0));
    EXPECT_FALSE(merge.reached().has_value()) << "device 1 has passed nothing";
    merge.passed(1, {0, 1});
    ASSERT_TRUE(merge.reached().has_value());
    EXPECT_EQ(merge.reached()->micros, 1);
    EXPECT_EQ(drain(merge), std::vector<std::string>{"a"});
    EXPECT_FALSE(merge.full(0));
    merge.finish(1);
    merge.finish(0);
    EXPECT_FALSE(merge.empty()) << "b is still queued";
    EXPECT_EQ(drain(merge), std::vector<std::string>{"b"});
    EXPECT_TRUE(merge.empty());
}

}  // namespace
