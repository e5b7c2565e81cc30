#include "fwStoreFiles.h"

#include <sys/stat.h>
#include <time.h>

#include <filesystem>
#include <string>

#include <json/json.h>

#include "library_test.h"

namespace fs = std::filesystem;

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

const std::string kFile = kProfileDir + "1.json";

class StoreFilesTest : public LibraryTest {
protected:
    /// Writes {"name": name, "content": content}.
    static void store(const std::string& name, const std::string& content,
                      const std::string& path = kFile) {
        writeFile(path, R"({"name": ")" + name + R"(", "content": ")" + content + "\"}");
    }

    /// Waits until the clock of the files' times is past the last write to the file.
    static void letFileAge() {
        struct stat status {};
        ASSERT_EQ(stat(kFile.c_str(), &status), 0);
        timespec now{};
        do {
            ASSERT_EQ(clock_gettime(CLOCK_REALTIME_COARSE, &now), 0);
        } while (now.tv_sec < status.st_ctim.tv_sec ||
                 (now.tv_sec == status.st_ctim.tv_sec && now.tv_nsec <= status.st_ctim.tv_nsec));
    }

    std::string nameIn(const std::string& path = kFile) {
        const Json::Value* const name = files_.nameIn(path);
        return name == nullptr ? "cannot be loaded" : name->isNull() ? "none" : name->asString();
    }

    std::string contentOf(const std::string& path = kFile) {
        Json::Value document;
        return files_.load(path, document) ? document["content"].asString() : "cannot be loaded";
    }

    /// How often a file was locked, which each reading does.
    std::size_t readings() const { return platform_.journalOf("mkdir ").size(); }

    FW::StoreFiles files_{[](const std::string& name) { return name == "kept"; }};
};

TEST_F(StoreFilesTest, ReadsAFileOnce) {
    store("kept", "a");
    letFileAge();
    EXPECT_EQ(nameIn(), "kept");
    EXPECT_EQ(nameIn(), "kept");
    EXPECT_EQ(contentOf(), "a");
    EXPECT_EQ(readings(), 1u);
}

TEST_F(StoreFilesTest, ReadsADocumentThatIsNotKeptWhenItIsWanted) {
    store("other", "a");
    letFileAge();
    EXPECT_EQ(nameIn(), "other");
    EXPECT_EQ(contentOf(), "a");
    EXPECT_EQ(readings(), 2u);
}

TEST_F(StoreFilesTest, ReadsADocumentAgainThatItHasGivenAway) {
    store("kept", "a");
    letFileAge();
    EXPECT_EQ(nameIn(), "kept");
    EXPECT_EQ(contentOf(), "a");
    EXPECT_EQ(contentOf(), "a");
    EXPECT_EQ(readings(), 2u);
}

TEST_F(StoreFilesTest, ReadsAgainWhatWasWrittenOver) {
    store("kept", "a");
    letFileAge();
    EXPECT_EQ(nameIn(), "kept");
    store("kept", "b");
    EXPECT_EQ(contentOf(), "b");
    store("more", "c");
    EXPECT_EQ(nameIn(), "more");
}

// Names of one length written in one moment: neither the size nor, perhaps, the time differs.
TEST_F(StoreFilesTest, ReadsAgainWhatWasJustWritten) {
    for (int i = 0; i < 1000; ++i) {
        const std::string name = std::to_string(1000 + i);
        store(name, "a");
        ASSERT_EQ(nameIn(), name);
    }
}

TEST_F(StoreFilesTest, ReadsAgainWhatWasRenamedOver) {
    store("kept", "a");
    store("kept", "b", kProfileDir + "new");
    letFileAge();
    EXPECT_EQ(nameIn(), "kept");
    fs::rename(kProfileDir + "new", kFile);
    EXPECT_EQ(contentOf(), "b");
}

TEST_F(StoreFilesTest, LogsAFileThatHasGoneAndReadsOneThatIsBack) {
    store("kept", "a");
    letFileAge();
    EXPECT_EQ(nameIn(), "kept");
    fs::remove(kFile);
    EXPECT_EQ(nameIn(), "cannot be loaded");
    EXPECT_EQ(contentOf(), "cannot be loaded");
    const std::string line = "utils: File " + kFile + " does not exist";
    EXPECT_THAT(errors(), ElementsAre(line, line));
    store("kept", "b");
    EXPECT_EQ(contentOf(), "b");
}

TEST_F(StoreFilesTest, LogsABrokenFileEachTime) {
    writeFile(kFile, "{");
    letFileAge();
    EXPECT_EQ(nameIn(), "cannot be loaded");
    EXPECT_EQ(nameIn(), "cannot be loaded");
    const std::string line = "utils: Failed to parse Json value of " + kFile;
    EXPECT_THAT(errors(), ElementsAre(line, line));
}

TEST_F(StoreFilesTest, FindsNoNameInWhatIsNoProfile) {
    for (const char* text : {"{}", "[]", R"("kept")", R"({"name": 1})"}) {
        writeFile(kFile, text);
        EXPECT_EQ(nameIn(), "none") << text;
    }
    EXPECT_THAT(errors(), IsEmpty());
}

}  // namespace
