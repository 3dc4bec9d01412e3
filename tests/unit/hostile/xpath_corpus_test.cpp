// Every input kept in the XPath matcher's fuzz corpus, replayed in the ordinary test run: an
// input that once broke the matcher is added there and stays a test from then on. The format
// is the fuzzer's: the expression, a newline, then two documents separated by a NUL byte.

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "jobs/XPathMatcher.h"

namespace {

namespace fs = std::filesystem;

fs::path corpusDir()
{
    return fs::path(__FILE__).parent_path() / ".." / ".." / ".." / "fuzz" / "corpus" /
           "xpath_matcher";
}

// The seeds' file names, sorted so that the tests come in the same order everywhere.
std::vector<std::string> corpus()
{
    std::vector<std::string> names;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(corpusDir(), error)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

class XPathCorpus : public testing::TestWithParam<std::string> {};

TEST_P(XPathCorpus, MatcherAnswersEachDocumentTheSameEveryTime)
{
    std::ifstream in(corpusDir() / GetParam(), std::ios::binary);
    ASSERT_TRUE(in) << "cannot read " << corpusDir() / GetParam();
    const std::string input((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const size_t newline = input.find('\n');
    const std::string documents = newline == std::string::npos ? "" : input.substr(newline + 1);
    const size_t split = documents.find('\0');
    const std::string first = documents.substr(0, split);
    const std::string second = split == std::string::npos ? "" : documents.substr(split + 1);

    XPathMatcher matcher(input.substr(0, newline));
    const bool once = matcher.matches(first);
    const bool other = matcher.matches(second);
    EXPECT_EQ(matcher.matches(first), once);
    EXPECT_EQ(matcher.matches(second), other);
    if (!matcher.compiled()) {
        EXPECT_FALSE(once || other) << "nothing matches a broken expression";
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, XPathCorpus, testing::ValuesIn(corpus()), [](const auto& info) {
    std::string name = info.param;
    for (char& c : name) {
        if (!isalnum(static_cast<unsigned char>(c))) c = '_';
    }
    return name;
});

// What the seeds hold, checked by name: a DTD never lets its entities in, and an external
// entity is never fetched.
TEST(XPathHostileDocuments, DocumentTypeDeclarationsMakeTheDocumentUnparsed)
{
    XPathMatcher text("string-length(string(/)) > 10");
    EXPECT_FALSE(
        text.matches("<!DOCTYPE a [<!ENTITY e \"xxxxxxxxxxxxxxxxxxxx\">]><a>&e;&e;&e;&e;</a>"));
    EXPECT_TRUE(text.matches("<a>plain text, long enough</a>"));
    XPathMatcher any("//x");
    EXPECT_FALSE(any.matches("<!DOCTYPE x [<!ENTITY f SYSTEM \"file:///etc/passwd\">]><x>&f;</x>"));
    EXPECT_TRUE(any.matches("<x/>"));
}

}  // namespace
