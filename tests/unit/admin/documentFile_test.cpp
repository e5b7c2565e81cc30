// Findings for text that is not a JSON document, or that only the library accepts.
#include "tarnfwadmin/documentFile.h"

#include <cstdio>
#include <ostream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tarnfwadmin/error.h"

namespace tarnfw {
namespace {

struct TextCase {
    const char* name;
    const char* text;
    std::vector<std::string> findings;
};

std::ostream& operator<<(std::ostream& out, const TextCase& c) {
    return out << c.text;
}

class ParseDocumentTest : public testing::TestWithParam<TextCase> {};

TEST_P(ParseDocumentTest, HasTheseFindings) {
    Json::Value document;
    std::vector<std::string> found;
    for (const Finding& finding : parseDocument(GetParam().text, document)) {
        found.push_back(lineOf("x", finding));
    }
    EXPECT_THAT(found, testing::ElementsAreArray(GetParam().findings));
}

const TextCase kTexts[] = {
    {"Plain", "{\"a\": [1, 2]}\n", {}},
    {"Comments", "// one\n{\"a\": 1 /* two */}", {}},
    {"Empty", "", {"x: line 1, column 1: Syntax error: value, object or array expected"}},
    {"SecondLine", "{\n  \"a\" 1}", {"x: line 2, column 7: Missing ':' after object member name"}},
    {"ColumnsAreCharacters",
     "{\"h\303\266me\" 1}",
     {"x: line 1, column 9: Missing ':' after object member name"}},
    {"TrailingComma", "{\"a\": 1,}", {"x: line 1, column 9: Missing '}' or object member name"}},
    {"Twice",
     "{\"a\": 1,\n \"a\": 2}",
     {"x: line 2, column 2: warning: the member \"a\" occurs twice; the last one counts"}},
    {"TwiceWithin",
     "{\"a\": {\"b\": 1, \"b\": 2},\n \"c\": 3}",
     {"x: line 1, column 16: warning: the member \"b\" occurs twice; the last one counts"}},
    {"Behind", "{} {}", {"x: line 1, column 4: warning: text after the document is ignored"}},
};

INSTANTIATE_TEST_SUITE_P(DocumentFile, ParseDocumentTest, testing::ValuesIn(kTexts),
                         [](const auto& c) { return std::string(c.param.name); });

TEST(ParseDocument, GivesWhatTheLibraryWouldRead) {
    Json::Value document;
    (void)parseDocument("{\"a\": 1, \"a\": 2} and so on", document);
    EXPECT_EQ(document["a"].asInt(), 2);
}

TEST(ParseDocument, DeepNestingIsAFinding) {
    Json::Value document;
    const std::vector<Finding> findings = parseDocument(std::string(5000, '['), document);
    ASSERT_FALSE(findings.empty());
    EXPECT_EQ(countErrors(findings), findings.size());
}

bool isDocument(const std::string& text) {
    Json::Value document;
    return parseAsStored(text, document);
}

TEST(ParseAsStored, TakesNoPartOfADocument) {
    const std::string whole = "{\"name\": \"home\", \"rules\": {\"eth0\": [1, 2]}}\n";
    EXPECT_TRUE(isDocument(whole));
    for (std::size_t length = 0; length < whole.size() - 1; ++length) {
        EXPECT_FALSE(isDocument(whole.substr(0, length))) << length;
    }
}

TEST(ParseAsStored, DoesNotRaiseForDepth) {
    EXPECT_FALSE(isDocument(std::string(5000, '[')));
}

TEST(ReadText, ThrowsForWhatIsNoFile) {
    EXPECT_THROW((void)readText(testing::TempDir()), Error);
    EXPECT_THROW((void)readText(testing::TempDir() + "nowhere.json"), Error);
}

TEST(WriteFileAtomically, WritesAllOrNothing) {
    const std::string path = testing::TempDir() + "documentFile_test.json";
    (void)std::remove(path.c_str());
    writeFileAtomically(path, "one", 0600, Existing::kKept);
    EXPECT_THROW(writeFileAtomically(path, "two", 0600, Existing::kKept), Error);
    EXPECT_EQ(readText(path), "one");
    writeFileAtomically(path, "two", 0600, Existing::kReplaced);
    EXPECT_EQ(readText(path), "two");
    EXPECT_THROW(writeFileAtomically(testing::TempDir() + "nowhere/x", "", 0600, Existing::kKept),
                 Error);
}

}  // namespace
}  // namespace tarnfw
