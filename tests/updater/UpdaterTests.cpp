// The update check against a release service on 127.0.0.1, and the install's checks, which must leave a
// portable install whole whenever one fails.
#include "platform/HeadlessEventLoop.h"
#include "platform/SettingsStore.h"
#include "tests/updater/ReleaseTesting.h"
#include "updater/QuorvaUpdater.h"
#include "updater/Version.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace quorva {
namespace {

namespace fs = std::filesystem;
using testing::ReleaseServer;
using testing::SigningKey;
using Kind = UpdateState::Kind;

TEST(UpdateVersions, CompareAsPeopleWriteThem) {
    EXPECT_EQ(NormalizeVersion(" v1.2\n"), "1.2");
    EXPECT_EQ(NormalizeVersion("V2"), "2");
    EXPECT_EQ(NormalizeVersion("vv2"), "v2");
    struct Case {
        const char* candidate;
        const char* current;
        bool newer;
    } cases[] = {
        {"v1.2", "1.2.0", false},   {"1.10", "1.9", true},
        {"1.2-beta", "1.2", false}, {"1.3-beta", "1.2", true},
        {"1..3", "1.3", false},     {"1.2.1", "1.2", true},
        {"1.x", "1.0", false},      {"1.2rc3", "1.1", true},
        {"2", "dev", true},         {"99999999999999999999999", "1", true},
    };
    for (const Case& c : cases)
        EXPECT_EQ(IsNewerVersion(c.candidate, std::nullopt, c.current, std::nullopt), c.newer)
            << c.candidate << " against " << c.current;
    // Equal numbers: only a known, greater build is newer.
    EXPECT_TRUE(IsNewerVersion("1.2", 8, "1.2.0", 7));
    EXPECT_FALSE(IsNewerVersion("1.2", 8, "1.2", std::nullopt));
    EXPECT_FALSE(IsNewerVersion("1.2", 7, "1.2", 7));
    EXPECT_FALSE(IsNewerVersion("1.1", 9, "1.2", 1));
}

// A document that does not read throws from value(), which fails the test.
TEST(ReleaseDocuments, ReadTheReleaseServiceAndManifestsAndRefuseWhatCannotBeTrusted) {
    const std::string id = "org.quorva.QuorvaRecorder";
    const std::string latest = R"({"tag_name": "v2.1.0", "body": "Faster.", "html_url": "https://x/r",
        "assets": [{"name": "notes.txt", "browser_download_url": "https://x/notes.txt"},
                   {"name": "QuorvaRecorder-2.1.0.ZIP", "browser_download_url": "https://x/a.zip"},
                   {"name": "other.zip", "browser_download_url": "https://x/b.zip"}]})";
    EXPECT_EQ(ParseRelease(latest, id).value(),
              (ReleaseInfo{"2.1.0", std::nullopt, "https://x/a.zip", std::nullopt, "Faster.", "Faster.",
                           "https://x/r"}));

    const std::string entry = R"({"version": "3.0", "build": 12, "notes": "Both.", "notes_fr": "Français.",
        "download_url": "http://x/c.zip", "sha256": ")" +
                              std::string(64, 'A') + R"("})";
    const ReleaseInfo manifest = ParseRelease(entry, id).value();
    EXPECT_EQ(manifest, (ReleaseInfo{"3.0", 12, "http://x/c.zip", std::string(64, 'a'), "Français.", "Both.",
                                     std::nullopt}));
    // A manifest of several programs: this one's entry.
    EXPECT_EQ(
        ParseRelease(R"({"org.quorva.Other": {"version": "9"}, ")" + id + R"(": )" + entry + "}", id).value(),
        manifest);

    const char* documents[] = {
        "not json",
        R"({"download_url": "https://x/a.zip"})",
        R"({"version": 2, "download_url": "https://x/a.zip"})",
        R"({"version": "2", "build": "12", "download_url": "https://x/a.zip"})",
        R"({"version": "2", "download_url": "ftp://x/a.zip"})",
        R"({"version": "2", "download_url": "https://x/a.zip", "sha256": "abc"})",
        R"({"tag_name": "v2", "assets": {"name": "a.zip"}})",
        R"({"tag_name": "v2", "assets": [{"name": "a.zip", "browser_download_url": "file:///etc/passwd"}]})",
        R"({"org.quorva.Other": {"version": "2", "download_url": "https://x/a.zip"}})",
    };
    for (const char* document : documents) {
        auto release = ParseRelease(document, id);
        ASSERT_FALSE(release.ok()) << document;
        EXPECT_EQ(release.error().kind, UpdateError::Kind::InvalidManifest) << document;
    }
}

// A program at version 1.0.0 whose settings live in a folder of the test's own, its portable install a
// shell script; and releases made of it.
class UpdaterTest : public ::testing::Test {
protected:
    void SetUp() override {
        folder = fs::temp_directory_path() / ("quorva-updater-test-" + std::to_string(::getpid()));
        fs::remove_all(folder);
        defaults = std::make_unique<SettingsStore>("org.quorva.QuorvaRecorder", folder / "config");
        configuration.repo = "quorva/QuorvaRecorder";
        configuration.bundleIdentifier = "org.quorva.QuorvaRecorder";
        configuration.currentVersion = "1.0.0";
        configuration.currentInstall = folder / "Install" / "QuorvaRecorder";
        configuration.publicKey = SigningKey::trusted().publicBase64();
        configuration.environment = {{"QUORVA_UPDATE_URL", server.url("/manifest.json")}};
        configuration.releaseServiceURL = server.url("");
        configuration.checkTimeoutSeconds = 1;
        configuration.downloadTimeoutSeconds = 1;
        fs::create_directories(configuration.currentInstall);
        fs::create_directories(folder / "tmp");
        std::ofstream(configuration.currentInstall / "quorvarecorder") << "#!/bin/sh\necho 1.0.0\n";
        fs::permissions(configuration.currentInstall / "quorvarecorder", fs::perms(0755));
        std::ofstream(configuration.currentInstall / "portable-install.txt") << "portable\n";
        ::setenv("TMPDIR", (folder / "tmp").c_str(), 1);
    }
    void TearDown() override {
        ::unsetenv("TMPDIR");
        defaults.reset();
        fs::remove_all(folder);
    }

    UpdateService service() { return UpdateService(configuration, *defaults); }
    // What a step reports is what the window's updater shows: its test below reads it.
    const UpdateService::Report ignore = [](const UpdateState&) {};
    std::string text(const UpdateState& state) {
        const UpdateTexts texts = TextsOf(state, configuration.currentVersion, UpdateLanguage::English, {});
        return texts.headline + " | " + texts.detail;
    }
    std::string manifest(const std::string& version, const std::string& extra = "") {
        return R"({"version": ")" + version + R"(", "notes": "New.", "download_url": ")" +
               server.url("/QuorvaRecorder.zip") + "\"" + extra + "}";
    }
    static std::string Release(std::vector<testing::ZipEntry> extra = {}) {
        std::vector<testing::ZipEntry> entries{
            {"QuorvaRecorder/", "", 0},
            {"QuorvaRecorder/quorvarecorder", "#!/bin/sh\necho 2.0.0\n", 0755},
            {"QuorvaRecorder/portable-install.txt", "portable\n", 0644}};
        entries.insert(entries.end(), extra.begin(), extra.end());
        return testing::Zip(entries);
    }
    // Version 2.0.0, its archive served by the test.
    ReleaseInfo release(std::optional<std::string> sha256 = std::nullopt) {
        return {"2.0.0", std::nullopt, server.url("/QuorvaRecorder.zip"), sha256, "New.",
                "New.",  std::nullopt};
    }
    // Every file of the install and its content.
    std::map<std::string, std::string> installed() {
        std::map<std::string, std::string> files;
        for (const auto& entry : fs::recursive_directory_iterator(configuration.currentInstall.parent_path()))
            files[entry.path().string()] = entry.is_regular_file() ? testing::ReadFile(entry.path()) : "";
        return files;
    }

    fs::path folder;
    ReleaseServer server;
    std::unique_ptr<SettingsStore> defaults;
    UpdaterConfiguration configuration;
};

TEST_F(UpdaterTest, ChecksTheManifestOrTheReleaseServiceAtMostOnceADayAndSaysWhyACheckFailed) {
    EXPECT_TRUE(service().shouldAutoCheck(1000, false)) << "never checked";
    EXPECT_FALSE(service().shouldAutoCheck(1000, true)) << "under tests";
    server.answer("/manifest.json", 200, manifest("v1.1"));
    ASSERT_EQ(service().check(1000, ignore).kind, Kind::UpdateAvailable);
    // The next automatic check waits a day after this one, unless the clock went back.
    EXPECT_FALSE(service().shouldAutoCheck(1000 + 86399, false));
    EXPECT_TRUE(service().shouldAutoCheck(1000 + 86400, false));
    EXPECT_TRUE(service().shouldAutoCheck(999, false)) << "the clock went back";
    service().setAutoCheckOnLaunch(false);
    EXPECT_FALSE(service().shouldAutoCheck(1000 + 86400, false));
    const std::string head = server.heads().at(0);
    for (const char* line :
         {"GET /manifest.json ", "Accept: application/vnd.github+json, application/json\r\n",
          "User-Agent: QuorvaRecorder/1.0.0\r\n", "Cache-Control: no-cache\r\n"})
        EXPECT_NE(head.find(line), std::string::npos) << head;

    server.answer("/manifest.json", 200, manifest("1.0"));
    EXPECT_EQ(text(service().check(2000, ignore)),
              "QuorvaRecorder is up to date. | You are running the latest version (v1.0.0).");
    server.answer("/manifest.json", 404, "Not Found");
    EXPECT_EQ(text(service().check(0, ignore)), "Update check failed | Update server returned HTTP 404");
    server.answer("/manifest.json", 200, R"({"tag_name": "v2", "assets": [{"name": "a.tar.gz",
        "browser_download_url": "https://x/a.tar.gz"}]})");
    EXPECT_EQ(text(service().check(0, ignore)), "Update check failed | No .zip archive found in release.");
    // A server that takes the request and never answers: the time-out ends the check.
    server.hang("/manifest.json");
    const std::string silent = text(service().check(0, ignore));
    EXPECT_TRUE(silent.starts_with("Update check failed | Could not reach the update server: ")) << silent;

    // Without QUORVA_UPDATE_URL the settings name the manifest, and without them the release service
    // answers for the repository.
    configuration.environment.clear();
    (void)defaults->setString(server.url("/custom.json"), "org.quorva.QuorvaRecorder.updateURL");
    server.answer("/custom.json", 200, manifest("4.0"));
    EXPECT_EQ(service().check(3000, ignore).release->version, "4.0");
    (void)defaults->removeObjectForKey("org.quorva.QuorvaRecorder.updateURL");
    server.answer(
        "/repos/quorva/QuorvaRecorder/releases/latest", 200,
        R"({"tag_name": "v5.0", "assets": [{"name": "q.zip", "browser_download_url": "https://x/q.zip"}]})");
    EXPECT_EQ(service().check(4000, ignore).release->version, "5.0");

    // No automatic check when it is turned off, nor in a build that is no release.
    EXPECT_FALSE(service().isRunningTestsOrHeadless());
    configuration.environment["QUORVA_DISABLE_UPDATE_CHECK"] = "1";
    EXPECT_TRUE(service().isRunningTestsOrHeadless());
    configuration.environment["QUORVA_DISABLE_UPDATE_CHECK"] = "0";
    configuration.currentVersion = "dev";
    EXPECT_TRUE(service().isRunningTestsOrHeadless()) << "a build that is no release";
}

TEST_F(UpdaterTest, EveryFailedCheckLeavesTheInstallWhole) {
    const auto before = installed();
    const SigningKey trusted = SigningKey::trusted(), other = SigningKey::other();
    const std::string good = Release(), notAZip = "PK\3\4 and nothing after",
                      bare = testing::Zip({{"QuorvaRecorder/quorvarecorder", "#!/bin/sh\n", 0755}}),
                      escaping = Release({{"../../escaped", "x", 0644}});
    std::string tampered = good;
    tampered[tampered.size() / 2] ^= 1;
    const std::string invalid = "The downloaded update has an invalid code signature.";
    const std::optional<std::string> goodSum = testing::SHA256Hex(good);
    struct Case {
        const char* what;
        std::string archive;
        std::string signature; // empty: the release has none
        std::optional<std::string> sha256;
        std::string text; // the whole text, or its start when it ends in ": "
    } cases[] = {
        {"tampered, with its checksum known", tampered, trusted.sign(tampered), goodSum,
         "SHA-256 checksum verification failed."},
        {"tampered after signing", tampered, trusted.sign(good), {}, invalid},
        {"never signed", good, "", goodSum, invalid},
        {"signed by another key", good, other.sign(good), goodSum,
         "Code signing key mismatch (expected " + trusted.fingerprint() + ", found " + other.fingerprint() +
             ")."},
        {"without an install",
         bare,
         trusted.sign(bare),
         {},
         "No application (portable install folder) found in the archive."},
        {"not a zip", notAZip, trusted.sign(notAZip), {}, "Archive extraction failed: "},
        {"escaping its folder", escaping, trusted.sign(escaping), {}, "Archive extraction failed: "},
    };
    for (const Case& c : cases) {
        server.answer("/QuorvaRecorder.zip", 200, c.archive);
        server.answer("/QuorvaRecorder.zip.sig", c.signature.empty() ? 404 : 200, c.signature);
        const UpdateState state = service().install(release(c.sha256), ::getpid(), {}, ignore);
        ASSERT_EQ(state.kind, Kind::Failed) << c.what;
        const std::string said = DescribeError(*state.error, UpdateLanguage::English);
        EXPECT_TRUE(c.text.ends_with(": ") ? said.starts_with(c.text) : said == c.text)
            << c.what << ": " << said;
        EXPECT_EQ(installed(), before) << c.what;
        EXPECT_TRUE(fs::is_empty(folder / "tmp")) << c.what << ": the download was left behind";
    }
    EXPECT_FALSE(fs::exists(folder / "escaped"));
}

TEST_F(UpdaterTest, LeavesOtherInstallsAlone) {
    fs::remove(configuration.currentInstall / "portable-install.txt");
    EXPECT_EQ(service().install(release(), ::getpid(), {}, ignore).error->kind,
              UpdateError::Kind::NotPortable);
    configuration.currentInstall = "/usr/bin";
    // Shown under the release's notes, as the window's update test reads.
    EXPECT_EQ(DescribeError(service().replaceability().value(), UpdateLanguage::English),
              "This copy of QuorvaRecorder (/usr/bin) belongs to the package manager: update it there (sudo "
              "apt install --only-upgrade quorvarecorder).");
    EXPECT_EQ(service().install(release(), ::getpid(), {}, ignore).error->kind,
              UpdateError::Kind::PackageManaged);
    EXPECT_TRUE(server.heads().empty()) << "nothing is downloaded for an install that cannot be replaced";
}

TEST_F(UpdaterTest, TheWindowsUpdaterShowsTheSheetForWhatTheUserAskedAndInstallsWhatItShows) {
    auto loop = std::make_shared<HeadlessEventLoop>();
    bool terminated = false;
    QuorvaUpdater updater(configuration, *defaults, *loop, [&] { terminated = true; });
    // Runs the main loop until `done`, for twenty seconds at most.
    auto runUntil = [&](const std::function<bool()>& done) { EXPECT_TRUE(loop->runUntil(done, 20)); };
    server.answer("/manifest.json", 404, "");
    updater.checkForUpdates(true, 0);
    runUntil([&] { return updater.state().kind == Kind::Failed; });
    EXPECT_FALSE(updater.isUpdateSheetPresented()) << "a failed check at launch stays quiet";

    server.answer("/manifest.json", 200, manifest("2.0", R"(, "sha256": ")" + std::string(64, '0') + "\""));
    server.answer("/QuorvaRecorder.zip", 200, Release());
    updater.checkForUpdates(true, 0);
    EXPECT_FALSE(updater.isUpdateSheetPresented());
    runUntil([&] { return updater.isUpdateSheetPresented(); });
    EXPECT_EQ(updater.state().kind, Kind::UpdateAvailable);

    // (A check the user asks for shows the sheet at once and as it goes: the window's update test reads
    // that.) The sheet installs the release it shows; an archive that fails its checksum never quits the
    // program.
    updater.downloadAndInstall(*updater.state().release);
    runUntil([&] { return updater.state().kind == Kind::Failed; });
    EXPECT_EQ(updater.state().error->kind, UpdateError::Kind::ChecksumMismatch);
    EXPECT_FALSE(terminated);
}

} // namespace
} // namespace quorva
