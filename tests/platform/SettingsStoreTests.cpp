#include "platform/SettingsStore.h"

#include "platform/Log.h"
#include "platform/Semaphore.h"

#include <atomic>
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
#include <thread>
#include <unistd.h>

namespace quorva {
namespace {

namespace fs = std::filesystem;
using Strings = std::vector<std::string>;

class SettingsStoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        _folder = fs::temp_directory_path() / ("quorva-settings-" + std::to_string(getpid()));
        fs::create_directories(_folder);
        SetLogSink([this](const std::string& line) { _log.push_back(line); });
    }
    void TearDown() override {
        SetLogSink({});
        fs::remove_all(_folder);
    }

    fs::path file(const std::string& identifier = ApplicationIdentifier) const {
        return _folder / (identifier + ".json");
    }
    std::string read(const fs::path& path) const {
        std::ifstream in(path);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    // The damaged files of `identifier` set aside.
    std::vector<fs::path> setAside(const std::string& identifier = ApplicationIdentifier) const {
        std::vector<fs::path> found;
        for (const auto& entry : fs::directory_iterator(_folder))
            if (entry.path().filename().string().rfind(identifier + ".json.corrupt-", 0) == 0)
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
    ASSERT_TRUE(store.flush());
    // The default of the gap stays out.
    EXPECT_EQ(nlohmann::json::parse(read(file())), nlohmann::json({{"RecorderCodec", "hevc"}}));

    ASSERT_TRUE(store.removeObjectForKey("RecorderCodec"));
    EXPECT_EQ(store.stringForKey("RecorderCodec"), "h264");
    ASSERT_TRUE(store.flush());
    EXPECT_EQ(nlohmann::json::parse(read(file())), nlohmann::json::object());
    EXPECT_TRUE(store.removeObjectForKey("NeverSet"));
}

TEST_F(SettingsStoreTest, EveryTypeComesBackAsItWasStoredAfterReopeningAndNonFiniteNumbersAreRefused) {
    const SettingsDictionary expected{
        {"RecorderName", std::string("Spectacle d'été")},
        {"RecorderWidth", int64_t(-9000000000)},
        {"RecorderFPS", 2.0}, // stays a double although whole
        {"RecorderBitrate", 0.1},
        {"RecorderPerformance", true},
        {"RecorderSources", Strings{"Camera 1", "", "Caméra 2"}},
        {"Empty", Strings{}},
        {"Literal", std::string("literal")},
    };
    {
        SettingsStore store(ApplicationIdentifier, _folder);
        for (const auto& [key, value] : expected)
            ASSERT_TRUE(store.setObject(value, key));
        ASSERT_TRUE(store.setObject("literal", "Literal")); // a string, not a boolean
        // Numbers that JSON cannot hold are refused, and nothing changes.
        for (double odd : {std::nan(""), double(INFINITY), -double(INFINITY)})
            EXPECT_FALSE(store.setDouble(odd, "RecorderFPS")) << odd;
        EXPECT_EQ(store.doubleForKey("RecorderFPS"), 2.0);
    }
    EXPECT_EQ(SettingsStore(ApplicationIdentifier, _folder).persistentDomain(), expected);
}

TEST_F(SettingsStoreTest, TypedReadersConvertLikeAHandEditedFileNeeds) {
    SettingsStore store(ApplicationIdentifier, _folder);
    int keys = 0;
    auto expect = [&](std::optional<SettingValue> value, std::optional<std::string> text, int64_t integer,
                      double number, bool flag) {
        std::string key = "Key" + std::to_string(++keys);
        if (value)
            store.registerDefaults({{key, *value}});
        SCOPED_TRACE(key);
        EXPECT_EQ(store.stringForKey(key), text);
        EXPECT_EQ(store.integerForKey(key), integer);
        EXPECT_EQ(store.doubleForKey(key), number);
        EXPECT_EQ(store.boolForKey(key), flag);
        bool list = value && std::holds_alternative<Strings>(*value);
        EXPECT_EQ(store.stringArrayForKey(key), list ? std::optional(Strings{"a"}) : std::nullopt);
    };
    expect(int64_t(42), "42", 42, 42, true);
    expect(2.75, "2.75", 2, 2.75, true);
    expect(-2.75, "-2.75", -2, -2.75, true);
    expect(1e30, "1e+30", INT64_MAX, 1e30, true);
    expect(true, "1", 1, 1, true);
    expect(false, "0", 0, 0, false);
    expect(std::string(" 12abc"), " 12abc", 12, 12, true);
    expect(std::string("YES"), "YES", 0, 0, true);
    expect(std::string("True"), "True", 0, 0, true);
    expect(std::string("words"), "words", 0, 0, false);
    expect(Strings{"a"}, std::nullopt, 0, 0, false);
    expect(std::nullopt, std::nullopt, 0, 0, false);
}

TEST_F(SettingsStoreTest, ADamagedFileIsSetAsideUnderANameOfItsOwnLoggedAndTheDefaultsServe) {
    std::set<std::string> damagedSoFar;
    for (const std::string& damaged : {std::string(R"({"RecorderCodec": "hev)"), std::string(),
                                       std::string(R"(["RecorderCodec"])"), std::string("\0\xff\x01", 3)}) {
        SCOPED_TRACE(testing::PrintToString(damaged));
        _log.clear();
        std::ofstream(file()) << damaged;
        SettingsStore store(ApplicationIdentifier, _folder);
        store.registerDefaults({{"RecorderCodec", std::string("h264")}});
        EXPECT_EQ(store.stringForKey("RecorderCodec"), "h264");
        EXPECT_TRUE(store.persistentDomain().empty());
        EXPECT_FALSE(fs::exists(file()));

        // Several in the same second each get a name of their own, and each is kept byte for byte.
        damagedSoFar.insert(damaged);
        std::set<std::string> kept;
        bool named = false;
        ASSERT_EQ(_log.size(), 1u);
        EXPECT_EQ(_log[0].rfind("Settings: ", 0), 0u);
        for (const fs::path& aside : setAside()) {
            kept.insert(read(aside));
            named = named || _log[0].find(aside.filename().string()) != std::string::npos;
        }
        EXPECT_EQ(kept, damagedSoFar);
        EXPECT_TRUE(named) << _log[0];

        // The store writes afresh.
        ASSERT_TRUE(store.setString("prores422", "RecorderCodec"));
        ASSERT_TRUE(store.flush());
        EXPECT_EQ(SettingsStore(ApplicationIdentifier, _folder).stringForKey("RecorderCodec"), "prores422");
    }

    // So is a folder where the file should be: it cannot be read.
    fs::remove(file());
    fs::create_directories(file() / "inside");
    const SettingsStore store(ApplicationIdentifier, _folder);
    EXPECT_FALSE(fs::exists(file()));
    EXPECT_EQ(setAside().size(), damagedSoFar.size() + 1);
}

TEST_F(SettingsStoreTest, ValuesOfOtherTypesAreSkippedOneByOne) {
    std::ofstream(file()) << R"({"RecorderCodec": "hevc", "Null": null, "Object": {"a": 1}, "Mixed": ["a", 1],
                      "Big": 18446744073709551615})";
    SettingsStore store(ApplicationIdentifier, _folder);
    EXPECT_EQ(store.stringForKey("RecorderCodec"), "hevc");
    EXPECT_EQ(store.objectForKey("Null"), std::nullopt);
    EXPECT_EQ(store.objectForKey("Object"), std::nullopt);
    EXPECT_EQ(store.stringArrayForKey("Mixed"), Strings{"a"}); // the texts of a list stay
    EXPECT_EQ(store.doubleForKey("Big"), 18446744073709551615.0);
    EXPECT_EQ(_log.size(), 2u);
    EXPECT_TRUE(setAside().empty());
}

// Its values the migration of the earlier application's settings reads: its test is among the window's.
TEST_F(SettingsStoreTest, ReadsAnotherApplicationsDomainWithoutTouchingIt) {
    const std::string client = "org.quorva.QuorvaClient";
    SettingsStore store(ApplicationIdentifier, _folder);
    EXPECT_EQ(store.persistentDomainForName("org.quorva.Nobody"), std::nullopt);
    // Someone else's damaged file is reported but left where it is.
    std::ofstream(file(client)) << "{oops";
    EXPECT_EQ(store.persistentDomainForName(client), std::nullopt);
    EXPECT_EQ(read(file(client)), "{oops");
    EXPECT_TRUE(setAside(client).empty());
}

TEST_F(SettingsStoreTest, TheFolderComesFromXDGConfigHomeElseHome) {
    std::optional<std::string> kept[2];
    const char* names[2] = {"XDG_CONFIG_HOME", "HOME"};
    for (int i = 0; i < 2; ++i)
        if (const char* value = std::getenv(names[i]))
            kept[i] = value;

    setenv("XDG_CONFIG_HOME", (_folder / "config").c_str(), 1);
    setenv("HOME", (_folder / "home").c_str(), 1);
    {
        SettingsStore store;
        ASSERT_TRUE(store.setBool(true, "Made"));
        ASSERT_TRUE(store.flush()); // made the missing folder
    }
    EXPECT_TRUE(fs::exists(_folder / "config" / file().filename()));
    setenv("XDG_CONFIG_HOME", "relative/config", 1); // not absolute: ignored
    EXPECT_EQ(SettingsStore::DefaultFolder(), _folder / "home" / ".config");
    unsetenv("XDG_CONFIG_HOME");
    EXPECT_EQ(SettingsStore::DefaultFolder(), _folder / "home" / ".config");

    for (int i = 0; i < 2; ++i)
        kept[i] ? setenv(names[i], kept[i]->c_str(), 1) : unsetenv(names[i]);
}

TEST_F(SettingsStoreTest, AWriteKilledBeforeItsRenameLeavesThePreviousSettingsWhole) {
    {
        SettingsStore store(ApplicationIdentifier, _folder);
        ASSERT_TRUE(store.setString("h264", "RecorderCodec"));
    }
    std::string before = read(file());

    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        SettingsStore store(ApplicationIdentifier, _folder);
        store.setBeforeRenameHook([](const fs::path&) { raise(SIGKILL); });
        (void)store.setString("prores4444", "RecorderCodec");
        (void)store.flush();
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
    EXPECT_FALSE(fs::exists(temporary)); // the dead writer's litter is cleared
    EXPECT_TRUE(_log.empty());
}

TEST_F(SettingsStoreTest, AFailedWriteIsReportedAndTheValueStillServesThisRun) {
    fs::path blocked = _folder / "not-a-folder";
    std::ofstream(blocked) << "a file where the settings folder should be";
    SettingsStore store(ApplicationIdentifier, blocked);
    ASSERT_TRUE(store.setString("hevc", "RecorderCodec"));
    auto result = store.flush();
    ASSERT_FALSE(result);
    EXPECT_NE(result.error().message().find("Could not save the settings"), std::string::npos);
    EXPECT_EQ(store.stringForKey("RecorderCodec"), "hevc");
    ASSERT_FALSE(_log.empty());
    EXPECT_EQ(_log.back().rfind("Settings: ", 0), 0u);
}

TEST_F(SettingsStoreTest, ASymbolicLinkToTheSettingsIsWrittenThroughNotReplaced) {
    fs::create_directories(_folder / "dotfiles");
    fs::path real = _folder / "dotfiles" / "recorder.json";
    std::ofstream(real) << R"({"RecorderName": "old"})";
    fs::create_symlink(real, file());
    SettingsStore store(ApplicationIdentifier, _folder);
    EXPECT_EQ(store.stringForKey("RecorderName"), "old");
    ASSERT_TRUE(store.setString("new", "RecorderName"));
    ASSERT_TRUE(store.flush());
    EXPECT_TRUE(fs::is_symlink(file()));
    EXPECT_EQ(nlohmann::json::parse(read(real)), nlohmann::json({{"RecorderName", "new"}}));
}

TEST_F(SettingsStoreTest, SettersDoNotWaitForTheDiskAndChangesMadeMeanwhileShareTheNextWrite) {
    SettingsStore store(ApplicationIdentifier, _folder);
    Semaphore writing, released;
    std::atomic<int> writes = 0;
    const auto caller = std::this_thread::get_id();
    std::atomic<bool> wroteOnCaller = false;
    store.setBeforeRenameHook([&](const fs::path&) {
        if (std::this_thread::get_id() == caller) {
            wroteOnCaller = true;
            return;
        }
        ++writes;
        writing.signal();
        released.wait();
        released.signal(); // once released, every write goes on
    });
    ASSERT_TRUE(store.setInteger(0, "RecorderGap"));
    ASSERT_FALSE(wroteOnCaller);
    ASSERT_TRUE(writing.wait(10));
    // The first write is held on the disk; setters still answer at once, and the values serve.
    for (int64_t gap = 1; gap <= 100; ++gap)
        ASSERT_TRUE(store.setInteger(gap, "RecorderGap"));
    EXPECT_EQ(store.integerForKey("RecorderGap"), 100);
    released.signal();
    ASSERT_TRUE(store.flush());
    EXPECT_EQ(writes, 2);
    EXPECT_EQ(nlohmann::json::parse(read(file())), nlohmann::json({{"RecorderGap", 100}}));
}

} // namespace
} // namespace quorva
