#include "core/TakeNaming.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <set>
#include <string>
#include <vector>

namespace quorva {
namespace {

namespace fs = std::filesystem;

// A fresh, empty folder for one test, removed afterwards.
class TakeNamingFolder : public testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "quorva-naming-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        _folder = pattern;
    }
    void TearDown() override { fs::remove_all(_folder); }

    void Touch(const std::string& name, const std::string& contents = "taken") {
        std::ofstream(_folder / name) << contents;
    }
    std::string Contents(const std::string& name) {
        std::ifstream file(_folder / name);
        return std::string(std::istreambuf_iterator<char>(file), {});
    }
    std::vector<std::string> Names(const TakeURLs& urls) {
        std::vector<std::string> names;
        for (const fs::path& url : urls.separate) {
            EXPECT_EQ(url.parent_path(), _folder);
            names.push_back(url.filename().string());
        }
        return names;
    }
    std::set<std::string> FolderContents() {
        std::set<std::string> names;
        for (const fs::directory_entry& entry : fs::directory_iterator(_folder))
            names.insert(entry.path().filename().string());
        return names;
    }

    fs::path _folder;
};

TEST(TakeNamingFileName, ReplacesOnlySlashesColonsAndALeadingDot) {
    EXPECT_EQ(FileName("a/b:c"), "a-b-c");
    EXPECT_EQ(FileName(".hidden"), "-hidden");
    EXPECT_EQ(FileName("..x.y"), "-.x.y");
    EXPECT_EQ(FileName("Répétition générale, acte 2 — fin"), "Répétition générale, acte 2 — fin");
    EXPECT_EQ(FileName(""), "");
}

TEST(TakeNamingOutputs, NamesAndNumbersMatchTheTable) {
    EXPECT_EQ(OutputNames(), (std::vector<std::string>{"separate", "assembled", "both"}));
    EXPECT_EQ(NameForOutput(2), "both");
    EXPECT_EQ(NameForOutput(-1), "separate");
    EXPECT_EQ(NameForOutput(3), "separate");

    int64_t output = 7;
    EXPECT_TRUE(GetOutput(output, "Assembled"));
    EXPECT_EQ(output, 1);
    for (const char* refused : {"", "sep", " both", "both "}) {
        output = 7;
        EXPECT_FALSE(GetOutput(output, refused)) << refused;
        EXPECT_EQ(output, 7) << refused;
    }
}

TEST_F(TakeNamingFolder, ASingleSeparateMovieIsNamedAfterTheTakeAlone) {
    EXPECT_EQ(Names(URLsForName("a/b:c", {"Cam"}, TakeOutputSeparate, _folder)),
              std::vector<std::string>{"a-b-c.mov"});
    EXPECT_EQ(Names(URLsForName(".hidden", {"Cam"}, TakeOutputSeparate, _folder)),
              std::vector<std::string>{"-hidden.mov"});
    EXPECT_FALSE(URLsForName("Show", {"Cam"}, TakeOutputSeparate, _folder).assembled);
}

TEST_F(TakeNamingFolder, AMovExtensionInAnyCaseIsDroppedUnlessNothingWouldRemain) {
    EXPECT_EQ(Names(URLsForName("Show.MOV", {"Cam"}, TakeOutputSeparate, _folder)),
              std::vector<std::string>{"Show.mov"});
    EXPECT_EQ(Names(URLsForName("Show.tar.Mov", {"Cam"}, TakeOutputSeparate, _folder)),
              std::vector<std::string>{"Show.tar.mov"});
    EXPECT_EQ(Names(URLsForName("Show.mp4", {"Cam"}, TakeOutputSeparate, _folder)),
              std::vector<std::string>{"Show.mp4.mov"});
    // Cleaned first: the leading dot is gone, so "-mov" has no extension to drop.
    EXPECT_EQ(Names(URLsForName(".mov", {"Cam"}, TakeOutputSeparate, _folder)),
              std::vector<std::string>{"-mov.mov"});
}

TEST_F(TakeNamingFolder, SeveralSourcesCarryTheirCleanedTitlesAfterTheNumber) {
    Touch("Show.mov");
    Touch("Show 2 — Cam.mov");
    TakeURLs urls = URLsForName("Show", {"Cam", "Desk"}, TakeOutputBoth, _folder);
    EXPECT_EQ(Names(urls), (std::vector<std::string>{"Show 3 — Cam.mov", "Show 3 — Desk.mov"}));
    ASSERT_TRUE(urls.assembled);
    EXPECT_EQ(*urls.assembled, _folder / "Show 3.mov");

    EXPECT_EQ(Names(URLsForName("Show", {"Cam/1", ".Desk"}, TakeOutputSeparate, _folder)),
              (std::vector<std::string>{"Show — Cam-1.mov", "Show — -Desk.mov"}));
}

TEST_F(TakeNamingFolder, AssembledOutputIgnoresTheTitles) {
    TakeURLs urls = URLsForName("Show", {"Cam", "Desk"}, TakeOutputAssembled, _folder);
    EXPECT_TRUE(urls.separate.empty());
    ASSERT_TRUE(urls.assembled);
    EXPECT_EQ(*urls.assembled, _folder / "Show.mov");

    // A separate movie's name that is taken does not matter to an assembled take...
    Touch("Show — Cam.mov");
    EXPECT_EQ(*URLsForName("Show", {"Cam"}, TakeOutputAssembled, _folder).assembled, _folder / "Show.mov");
    // ...but with "both", one source keeps its title, so that its movie and the assembled one differ.
    TakeURLs both = URLsForName("Show", {"Cam"}, TakeOutputBoth, _folder);
    EXPECT_EQ(Names(both), std::vector<std::string>{"Show 2 — Cam.mov"});
    EXPECT_EQ(*both.assembled, _folder / "Show 2.mov");
}

TEST_F(TakeNamingFolder, AnyOneCollisionMovesTheWholeTakeOnAndNothingIsOverwritten) {
    Touch("Show.mov", "first");
    Touch("Show 2 — Desk.mov", "second");
    // A dangling link is still a name that writing would clobber.
    fs::create_symlink(_folder / "nowhere", _folder / "Show 3 — Cam.mov");
    Touch("show 4 — cam.mov"); // another case is another file on this system

    std::set<std::string> before = FolderContents();
    TakeURLs urls = URLsForName("Show", {"Cam", "Desk"}, TakeOutputBoth, _folder);
    EXPECT_EQ(Names(urls), (std::vector<std::string>{"Show 4 — Cam.mov", "Show 4 — Desk.mov"}));
    EXPECT_EQ(*urls.assembled, _folder / "Show 4.mov");
    for (const fs::path& url : urls.separate)
        EXPECT_FALSE(before.count(url.filename().string()));
    EXPECT_EQ(FolderContents(), before); // naming only looks
    EXPECT_EQ(Contents("Show.mov"), "first");
    EXPECT_EQ(Contents("Show 2 — Desk.mov"), "second");
}

TEST_F(TakeNamingFolder, NumbersGoOnPastTen) {
    Touch("Take.mov");
    for (int n = 2; n <= 11; ++n)
        Touch("Take " + std::to_string(n) + ".mov");
    EXPECT_EQ(Names(URLsForName("Take", {"Cam"}, TakeOutputSeparate, _folder)),
              std::vector<std::string>{"Take 12.mov"});
}

} // namespace
} // namespace quorva
