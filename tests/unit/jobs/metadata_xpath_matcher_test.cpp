// XPathMatcher, the metadata search's document test: the same answers as libxml2 used plainly
// (parse, fresh context, evaluate, free) on every ordinary document, across a reused parser and
// context; nothing from a DTD; bounded size; and no libxml2 message on standard error.

#include <malloc.h>

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "jobs/XPathMatcher.h"
#include "jobs/XmlLibrary.h"
#include "support/PlainXPath.h"

namespace {

using rstest::plainXPathEvaluation;

const std::vector<std::string> kDocuments = {
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<frame id=\"a\"><object class=\"car\" "
    "likelihood=\"0.8\"><colour>red</colour><box x=\"1\" y=\"2\"/></object><object "
    "class=\"person\"><colour>blue</colour></object></frame>",
    "<frame><object class=\"person\"><colour>red</colour></object><!-- comment --><?pi x?>"
    "<motion state=\"true\"/></frame>",
    "<tt:MetadataStream xmlns:tt=\"http://www.onvif.org/ver10/schema\"><tt:VideoAnalytics>"
    "<tt:Frame UtcTime=\"2024-01-01T00:00:00Z\"><tt:Object ObjectId=\"1\"/></tt:Frame>"
    "</tt:VideoAnalytics></tt:MetadataStream>",
    "<frame><![CDATA[<object class=\"car\"/>]]></frame>",
    "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><frame>caf\xe9</frame>",
    "<frame><object class=\"car\">",  // does not parse
    "",
    "<frame/>",
};

const std::vector<std::string> kExpressions = {
    "/",
    "//object",
    "count(//object) = 2",
    "//object[1]/@class = 'car'",
    "//object[last()]/colour = 'red'",
    "name(/*) = 'frame'",
    "not(/)",
    "true()",
    "frame",
    ".",
    "id('a')",
    "//*[local-name() = 'Object']",
    "string-length(string(/)) > 5",
    "//motion/@state = 'true'",
    "contains(/frame, '<object')",
    "position() = 1",
    "//object[",
    "count(1)",
    "unknown-function()",
    "$undefined",
    "",
};

TEST(XPathMatcherTest, AgreesWithPlainLibxml2OnOrdinaryDocumentsInAnyOrder)
{
    for (const std::string& expression : kExpressions) {
        XPathMatcher matcher(expression);
        // Twice over, so that every document also follows every other on the reused objects.
        for (int pass = 0; pass < 2; ++pass) {
            for (const std::string& document : kDocuments) {
                EXPECT_EQ(matcher.matches(document),
                          plainXPathEvaluation(expression, document) == 1)
                    << "expression: " << expression << "\ndocument: " << document;
            }
        }
    }
}

std::string nested(int depth, const std::string& open, const std::string& core,
                   const std::string& close)
{
    std::string text;
    for (int i = 0; i < depth; ++i) text += open;
    text += core;
    for (int i = 0; i < depth; ++i) text += close;
    return text;
}

// Nesting deeper than libxml2 compiles is refused, not a stack overflow; size alone is no reason.
TEST(XPathMatcherTest, ExpressionThatDoesNotCompileMatchesNothingAndALargeOneStillMatches)
{
    for (const std::string& expression :
         {std::string("//object["), std::string(), std::string("1 +"), std::string("foo::bar"),
          nested(100000, "(", "//object", ")"), nested(100000, "not(", "//object", ")"),
          nested(100000, "//*[", "1", "]")}) {
        XPathMatcher matcher(expression);
        EXPECT_FALSE(matcher.compiled()) << expression.substr(0, 20);
        EXPECT_FALSE(matcher.matches("<frame><object/></frame>")) << expression.substr(0, 20);
    }
    for (const std::string& large :
         {"string-length('" + std::string(1 << 20, 'a') + "') = " + std::to_string(1 << 20),
          nested(20000, "", "//object", " | //none"), nested(100, "(", "//object", ")")}) {
        EXPECT_TRUE(XPathMatcher(large).matches("<frame><object/></frame>")) << large.size();
    }
}

TEST(XPathMatcherTest, DocumentWithADtdIsNotParsedEvenWhenPlainLibxml2WouldMatch)
{
    const std::string withDtd = "<!DOCTYPE frame [<!ELEMENT frame ANY>]><frame/>";
    EXPECT_EQ(plainXPathEvaluation("/frame", withDtd), 1);
    XPathMatcher matcher("/frame");
    EXPECT_FALSE(matcher.matches(withDtd));
    EXPECT_FALSE(matcher.matches("<!DOCTYPE frame><frame/>"));
    EXPECT_TRUE(matcher.matches("<frame/>")) << "the parser recovers from a refused document";
}

TEST(XPathMatcherTest, SizeBoundIsInclusive)
{
    XPathMatcher matcher("/a");
    const std::string atBound = "<a>" + std::string(kMaxDocumentBytes - 7, 'x') + "</a>";
    ASSERT_EQ(atBound.size(), kMaxDocumentBytes);
    EXPECT_TRUE(matcher.matches(atBound));
    EXPECT_FALSE(matcher.matches(atBound + " "));
}

// Each document brings 2000 names of its own, so the parser's dictionary passes its bound
// several times over; what stays allocated afterwards is the dictionary's bound at most, never
// the documents (200 of them hold about 50 MB as trees).
TEST(XPathMatcherTest, KeepsMatchingAcrossParserRenewalsAndHoldsNoDocument)
{
    XPathMatcher matcher("count(/r/*) = 2000");
    const std::size_t heldBefore = mallinfo2().uordblks;
    for (int doc = 0; doc < 200; ++doc) {
        std::string text = "<r>";
        for (int i = 0; i < 2000; ++i) {
            text += "<n" + std::to_string(doc) + "_" + std::to_string(i) + "/>";
        }
        text += "</r>";
        ASSERT_TRUE(matcher.matches(text)) << "document " << doc;
    }
    const std::size_t heldAfter = mallinfo2().uordblks;
    EXPECT_LT(heldAfter, heldBefore + (std::size_t{16} << 20)) << "bytes still held";
}

TEST(XPathMatcherTest, ExpensiveEvaluationIsCutShortAndDoesNotMatch)
{
    // Quadratic in the number of elements: about 64 million steps, beyond the bound.
    std::string text = "<r>";
    for (int i = 0; i < 8000; ++i) text += "<a/>";
    text += "</r>";
    XPathMatcher matcher("count(//a[count(//a) > 0]) > 0");
    EXPECT_FALSE(matcher.matches(text));
    EXPECT_TRUE(XPathMatcher("count(//a) = 8000").matches(text));
}

TEST(XmlLibraryTest, NoLibxml2MessageReachesStandardErrorFromAnyThread)
{
    initialiseXmlLibrary();
    testing::internal::CaptureStderr();
    // A thread that starts after the set-up, as a search's worker does.
    std::thread worker([] {
        XPathMatcher badExpression("//object[");
        XPathMatcher evaluationError("count(1)");
        evaluationError.matches("<frame/>");
        evaluationError.matches("<frame><unclosed></frame>");
        // Plain libxml2 calls on the same thread, with its default reporting.
        plainXPathEvaluation("//object[", "<frame><unclosed></frame>");
        plainXPathEvaluation("count(1)", "<frame/>");
    });
    worker.join();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

}  // namespace
