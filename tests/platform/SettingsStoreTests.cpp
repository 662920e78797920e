#include "platform/SettingsStore.h"

#include "platform/Log.h"

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <nlohmann/json.hpp>
#include <set>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace quorva {
namespace {

namespace fs = std::filesystem;
using Strings = std::vector<std::string>;

class SettingsStoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "quorva-settings-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        _folder = pattern;
        SetLogSink([this](const std::string& line) { _log.push_back(line); });
    }
    void TearDown() override {
        SetLogSink({});
        std::error_code ignored;
        fs::remove_all(_folder, ignored);
    }

    fs::path file(const std::string& identifier = ApplicationIdentifier) const {
        return _folder / (identifier + ".json");
    }
    std::string read(const fs::path& path) const {
        std::ifstream in(path);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    void write(const fs::path& path, const std::string& text) const { std::ofstream(path) << text; }
    std::vector<fs::path> filesStartingWith(const std::string& prefix) const {
        std::vector<fs::path> found;
        for (const auto& entry : fs::directory_iterator(_folder))
            if (entry.path().filename().string().rfind(prefix, 0) == 0)
                found.push_back(entry.path());
        return found;
    }

    fs::path _folder;
    std::vector<std::string> _log;
};

TEST_F(SettingsStoreTest, RegisteredDefaultsAnswerUntilAValueIsSetAndAreNeverWritten) {
    SettingsStore store(ApplicationIdentifier, _folder);
    store.registerDefaults({{"RecorderCodec", std::string("h264")}, {"RecorderGap", int64_t(4)}});
    store.registerDefaults({{"RecorderGap", int64_t(8)}}); // a later registration wins
    EXPECT_EQ(store.stringForKey("RecorderCodec"), "h264");
    EXPECT_EQ(store.integerForKey("RecorderGap"), 8);
    EXPECT_FALSE(fs::exists(file()));

    ASSERT_TRUE(store.setString("hevc", "RecorderCodec"));
    EXPECT_EQ(store.stringForKey("RecorderCodec"), "hevc");
    auto stored = nlohmann::json::parse(read(file()));
    EXPECT_EQ(stored, nlohmann::json({{"RecorderCodec", "hevc"}})); // the default of the gap stays out

    ASSERT_TRUE(store.removeObjectForKey("RecorderCodec"));
    EXPECT_EQ(store.stringForKey("RecorderCodec"), "h264");
    EXPECT_EQ(nlohmann::json::parse(read(file())), nlohmann::json::object());
    EXPECT_TRUE(store.removeObjectForKey("NeverSet"));
}

TEST_F(SettingsStoreTest, EveryTypeComesBackAsItWasStoredAfterReopening) {
    {
        SettingsStore store(ApplicationIdentifier, _folder);
        ASSERT_TRUE(store.setString("Spectacle d'été", "RecorderName"));
        ASSERT_TRUE(store.setInteger(-9000000000, "RecorderWidth"));
        ASSERT_TRUE(store.setDouble(2.0, "RecorderFPS")); // stays a double although whole
        ASSERT_TRUE(store.setDouble(0.1, "RecorderBitrate"));
        ASSERT_TRUE(store.setBool(true, "RecorderPerformance"));
        ASSERT_TRUE(store.setStringArray({"Camera 1", "", "Caméra 2"}, "RecorderSources"));
        ASSERT_TRUE(store.setStringArray({}, "Empty"));
        ASSERT_TRUE(store.setObject("literal", "Literal")); // a string, not a boolean
    }
    SettingsStore store(ApplicationIdentifier, _folder);
    SettingsDictionary expected{
        {"RecorderName", std::string("Spectacle d'été")},
        {"RecorderWidth", int64_t(-9000000000)},
        {"RecorderFPS", 2.0},
        {"RecorderBitrate", 0.1},
        {"RecorderPerformance", true},
        {"RecorderSources", Strings{"Camera 1", "", "Caméra 2"}},
        {"Empty", Strings{}},
        {"Literal", std::string("literal")},
    };
    EXPECT_EQ(store.persistentDomain(), expected);
    EXPECT_EQ(store.objectForKey("Missing"), std::nullopt);
}

TEST_F(SettingsStoreTest, TypedReadersConvertLikeAHandEditedFileNeeds) {
    SettingsStore store(ApplicationIdentifier, _folder);
    store.registerDefaults({
        {"Int", int64_t(42)},
        {"Double", 2.75},
        {"NegativeDouble", -2.75},
        {"HugeDouble", 1e30},
        {"True", true},
        {"False", false},
        {"NumberText", std::string(" 12abc")},
        {"Yes", std::string("YES")},
        {"TrueText", std::string("True")},
        {"No", std::string("no")},
        {"OneText", std::string("1")},
        {"Words", std::string("words")},
        {"List", Strings{"a"}},
    });

    EXPECT_EQ(store.stringForKey("Int"), "42");
    EXPECT_EQ(store.stringForKey("Double"), "2.75");
    EXPECT_EQ(store.stringForKey("True"), "1");
    EXPECT_EQ(store.stringForKey("List"), std::nullopt);
    EXPECT_EQ(store.stringForKey("Missing"), std::nullopt);

    EXPECT_EQ(store.integerForKey("Double"), 2);
    EXPECT_EQ(store.integerForKey("NegativeDouble"), -2);
    EXPECT_EQ(store.integerForKey("HugeDouble"), INT64_MAX);
    EXPECT_EQ(store.integerForKey("True"), 1);
    EXPECT_EQ(store.integerForKey("NumberText"), 12);
    EXPECT_EQ(store.integerForKey("Words"), 0);
    EXPECT_EQ(store.integerForKey("List"), 0);
    EXPECT_EQ(store.integerForKey("Missing"), 0);

    EXPECT_EQ(store.doubleForKey("Int"), 42.0);
    EXPECT_EQ(store.doubleForKey("NumberText"), 12.0);
    EXPECT_EQ(store.doubleForKey("Missing"), 0.0);

    for (const char* key : {"True", "Int", "Double", "Yes", "TrueText", "OneText"})
        EXPECT_TRUE(store.boolForKey(key)) << key;
    for (const char* key : {"False", "No", "Words", "List", "Missing"})
        EXPECT_FALSE(store.boolForKey(key)) << key;

    EXPECT_EQ(store.stringArrayForKey("List"), Strings{"a"});
    EXPECT_EQ(store.stringArrayForKey("Words"), std::nullopt);
}

TEST_F(SettingsStoreTest, NumbersThatJSONCannotHoldAreRefusedAndNothingChanges) {
    SettingsStore store(ApplicationIdentifier, _folder);
    ASSERT_TRUE(store.setDouble(30, "RecorderFPS"));
    for (double odd : {std::nan(""), double(INFINITY), -double(INFINITY)}) {
        auto result = store.setDouble(odd, "RecorderFPS");
        ASSERT_FALSE(result);
        EXPECT_EQ(result.error().domain(), std::string(ApplicationIdentifier) + ".Settings");
    }
    EXPECT_EQ(store.doubleForKey("RecorderFPS"), 30.0);
    EXPECT_EQ(SettingsStore(ApplicationIdentifier, _folder).doubleForKey("RecorderFPS"), 30.0);
}

TEST_F(SettingsStoreTest, ADamagedFileIsSetAsideLoggedAndTheDefaultsServe) {
    struct Case {
        const char* name;
        std::string text;
    };
    for (const auto& damaged :
         {Case{"truncated", R"({"RecorderCodec": "hev)"}, Case{"empty", ""},
          Case{"not an object", R"(["RecorderCodec"])"}, Case{"binary", std::string("\0\xff\x01", 3)}}) {
        SCOPED_TRACE(damaged.name);
        fs::remove_all(_folder);
        fs::create_directories(_folder);
        _log.clear();
        write(file(), damaged.text);

        SettingsStore store(ApplicationIdentifier, _folder);
        store.registerDefaults({{"RecorderCodec", std::string("h264")}});
        EXPECT_EQ(store.stringForKey("RecorderCodec"), "h264");
        EXPECT_TRUE(store.persistentDomain().empty());

        auto aside = filesStartingWith(file().filename().string() + ".corrupt-");
        ASSERT_EQ(aside.size(), 1u);
        EXPECT_EQ(read(aside[0]), damaged.text); // kept byte for byte
        EXPECT_FALSE(fs::exists(file()));
        ASSERT_EQ(_log.size(), 1u);
        EXPECT_EQ(_log[0].rfind("Settings: ", 0), 0u);
        EXPECT_NE(_log[0].find(aside[0].filename().string()), std::string::npos) << _log[0];

        // The store writes afresh, and the damaged copy stays.
        ASSERT_TRUE(store.setString("prores422", "RecorderCodec"));
        EXPECT_EQ(SettingsStore(ApplicationIdentifier, _folder).stringForKey("RecorderCodec"), "prores422");
        EXPECT_EQ(filesStartingWith(file().filename().string() + ".corrupt-").size(), 1u);
    }
}

TEST_F(SettingsStoreTest, AnotherDamagedFileOfTheSameSecondGetsItsOwnName) {
    write(file(), "{");
    { SettingsStore store(ApplicationIdentifier, _folder); }
    write(file(), "[");
    { SettingsStore store(ApplicationIdentifier, _folder); }
    auto aside = filesStartingWith(file().filename().string() + ".corrupt-");
    ASSERT_EQ(aside.size(), 2u); // unless the second passed in between, a suffix kept them apart
    std::set<std::string> contents{read(aside[0]), read(aside[1])};
    EXPECT_EQ(contents, (std::set<std::string>{"{", "["}));
}

TEST_F(SettingsStoreTest, AFileThatCannotBeReadIsSetAsideToo) {
    fs::create_directories(file() / "inside"); // a folder where the file should be
    SettingsStore store(ApplicationIdentifier, _folder);
    auto aside = filesStartingWith(file().filename().string() + ".corrupt-");
    ASSERT_EQ(aside.size(), 1u);
    EXPECT_TRUE(fs::exists(aside[0] / "inside"));
    EXPECT_TRUE(store.setBool(true, "RecorderPerformance"));
}

TEST_F(SettingsStoreTest, ValuesOfOtherTypesAreSkippedOneByOne) {
    write(file(), R"({"RecorderCodec": "hevc", "Null": null, "Object": {"a": 1}, "Mixed": ["a", 1],
                      "Big": 18446744073709551615})");
    SettingsStore store(ApplicationIdentifier, _folder);
    EXPECT_EQ(store.stringForKey("RecorderCodec"), "hevc");
    EXPECT_EQ(store.objectForKey("Null"), std::nullopt);
    EXPECT_EQ(store.objectForKey("Object"), std::nullopt);
    EXPECT_EQ(store.objectForKey("Mixed"), std::nullopt);
    EXPECT_EQ(store.doubleForKey("Big"), 18446744073709551615.0);
    EXPECT_EQ(_log.size(), 3u);
    EXPECT_TRUE(filesStartingWith(file().filename().string() + ".corrupt-").empty());
}

TEST_F(SettingsStoreTest, ReadsAnotherApplicationsDomainWithoutTouchingIt) {
    const std::string client = "org.quorva.QuorvaClient";
    write(file(client), R"({"RecorderCodec": "prores4444", "RecorderGap": 12})");
    SettingsStore store(ApplicationIdentifier, _folder);
    auto other = store.persistentDomainForName(client);
    ASSERT_TRUE(other);
    EXPECT_EQ(*other, (SettingsDictionary{{"RecorderCodec", std::string("prores4444")},
                                          {"RecorderGap", int64_t(12)}}));
    EXPECT_EQ(store.objectForKey("RecorderCodec"), std::nullopt); // not merged into ours

    EXPECT_EQ(store.persistentDomainForName("org.quorva.Nobody"), std::nullopt);
    ASSERT_TRUE(store.setInteger(3, "RecorderGap"));
    EXPECT_EQ(store.persistentDomainForName(ApplicationIdentifier),
              (SettingsDictionary{{"RecorderGap", int64_t(3)}}));

    // Someone else's damaged file is reported but left where it is.
    write(file(client), "{oops");
    EXPECT_EQ(store.persistentDomainForName(client), std::nullopt);
    EXPECT_EQ(read(file(client)), "{oops");
    EXPECT_TRUE(filesStartingWith(file(client).filename().string() + ".corrupt-").empty());
}

TEST_F(SettingsStoreTest, TheFolderComesFromXDGConfigHomeElseHome) {
    auto keep = [](const char* name) -> std::optional<std::string> {
        const char* value = std::getenv(name);
        return value ? std::optional<std::string>(value) : std::nullopt;
    };
    auto restore = [](const char* name, const std::optional<std::string>& value) {
        if (value)
            setenv(name, value->c_str(), 1);
        else
            unsetenv(name);
    };
    auto config = keep("XDG_CONFIG_HOME"), home = keep("HOME");

    setenv("XDG_CONFIG_HOME", (_folder / "config").c_str(), 1);
    setenv("HOME", (_folder / "home").c_str(), 1);
    EXPECT_EQ(SettingsStore::DefaultFolder(), _folder / "config");
    {
        SettingsStore store;
        EXPECT_EQ(store.filePath(), _folder / "config" / "org.quorva.QuorvaRecorder.json");
        ASSERT_TRUE(store.setBool(true, "Made")); // makes the missing folder
        EXPECT_TRUE(fs::exists(store.filePath()));
    }
    setenv("XDG_CONFIG_HOME", "relative/config", 1); // not absolute: ignored
    EXPECT_EQ(SettingsStore::DefaultFolder(), _folder / "home" / ".config");
    unsetenv("XDG_CONFIG_HOME");
    EXPECT_EQ(SettingsStore::DefaultFolder(), _folder / "home" / ".config");

    restore("XDG_CONFIG_HOME", config);
    restore("HOME", home);
}

TEST_F(SettingsStoreTest, AWriteKilledBeforeItsRenameLeavesThePreviousSettingsWhole) {
    {
        SettingsStore store(ApplicationIdentifier, _folder);
        ASSERT_TRUE(store.setString("h264", "RecorderCodec"));
        ASSERT_TRUE(store.setInteger(1920, "RecorderWidth"));
    }
    std::string before = read(file());

    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        SettingsStore store(ApplicationIdentifier, _folder);
        store.setBeforeRenameHook([](const fs::path&) { raise(SIGKILL); });
        (void)store.setString("prores4444", "RecorderCodec");
        _exit(3); // the hook never let it get here
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;

    // The child got as far as a complete new file, and no further.
    fs::path temporary = _folder / ("." + file().filename().string() + ".tmp-" + std::to_string(child));
    ASSERT_TRUE(fs::exists(temporary));
    EXPECT_NE(read(temporary).find("prores4444"), std::string::npos);
    EXPECT_EQ(read(file()), before);

    SettingsStore reopened(ApplicationIdentifier, _folder);
    EXPECT_EQ(reopened.stringForKey("RecorderCodec"), "h264");
    EXPECT_EQ(reopened.integerForKey("RecorderWidth"), 1920);
    EXPECT_FALSE(fs::exists(temporary)); // the dead writer's litter is cleared
    EXPECT_TRUE(_log.empty());
}

TEST_F(SettingsStoreTest, AFailedWriteIsReportedAndTheValueStillServesThisRun) {
    fs::path blocked = _folder / "not-a-folder";
    write(blocked, "a file where the settings folder should be");
    SettingsStore store(ApplicationIdentifier, blocked);
    auto result = store.setString("hevc", "RecorderCodec");
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().code(), -1);
    EXPECT_NE(result.error().message().find("Could not save the settings"), std::string::npos);
    EXPECT_EQ(store.stringForKey("RecorderCodec"), "hevc");
    ASSERT_FALSE(_log.empty());
    EXPECT_EQ(_log.back().rfind("Settings: ", 0), 0u);
}

TEST_F(SettingsStoreTest, ASymbolicLinkToTheSettingsIsWrittenThroughNotReplaced) {
    fs::create_directories(_folder / "dotfiles");
    fs::path real = _folder / "dotfiles" / "recorder.json";
    write(real, R"({"RecorderName": "old"})");
    fs::create_symlink(real, file());
    SettingsStore store(ApplicationIdentifier, _folder);
    EXPECT_EQ(store.stringForKey("RecorderName"), "old");
    ASSERT_TRUE(store.setString("new", "RecorderName"));
    EXPECT_TRUE(fs::is_symlink(file()));
    EXPECT_EQ(nlohmann::json::parse(read(real)), nlohmann::json({{"RecorderName", "new"}}));
}

} // namespace
} // namespace quorva
