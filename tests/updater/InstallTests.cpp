// The command line replacing a portable install of version 1.0.0 by 2.0.0, served on 127.0.0.1, as a
// user would: the programs are real builds that trust the tests' signing key.
#include "tests/Processes.h"
#include "tests/core/Limits.h"
#include "tests/updater/ReleaseTesting.h"

#include <gtest/gtest.h>

namespace quorva {
namespace {

namespace fs = std::filesystem;
using testing::ReleaseServer;
using testing::Shell;

TEST(UpdateCommand, ReplacesAPortableInstallAndRelaunchesIt) {
    const fs::path folder =
        fs::temp_directory_path() / ("quorva-update-command-" + std::to_string(::getpid()));
    fs::remove_all(folder);
    const fs::path install = folder / "Old" / "QuorvaRecorder";
    fs::create_directories(install);
    fs::create_directories(folder / "tmp");
    fs::copy_file(QUORVA_OLD_PROGRAM, install / "quorvarecorder");
    fs::permissions(install / "quorvarecorder", fs::perms(0755));
    std::ofstream(install / "portable-install.txt") << "portable\n";

    ReleaseServer server;
    const std::string archive =
        testing::Zip({{"QuorvaRecorder/", "", 0},
                      {"QuorvaRecorder/quorvarecorder", testing::ReadFile(QUORVA_NEW_PROGRAM), 0755},
                      {"QuorvaRecorder/portable-install.txt", "portable\n", 0644}});
    server.answer("/QuorvaRecorder.zip", 200, archive);
    server.answer("/QuorvaRecorder.zip.sig", 200, testing::SigningKey::trusted().sign(archive));
    server.answer("/manifest.json", 200,
                  R"({"version": "2.0.0", "notes": "Faster pictures.", "download_url": ")" +
                      server.url("/QuorvaRecorder.zip") + R"(", "sha256": ")" + testing::SHA256Hex(archive) +
                      "\"}");

    const std::string run =
        "cd " + folder.string() + " && QUORVA_UPDATE_URL=" + server.url("/manifest.json") +
        " XDG_CONFIG_HOME=" + (folder / "config").string() + " TMPDIR=" + (folder / "tmp").string() + " " +
        (install / "quorvarecorder").string();
    EXPECT_EQ(Shell(run + " update; echo exit $?"),
              "Checking for updates…\nNew version available: v2.0.0\nFaster "
              "pictures.\nInstall it with: quorvarecorder update --install\nexit 0\n");

    // The relaunched program writes its version where the command's output goes.
    const fs::path output = folder / "output.txt";
    EXPECT_EQ(Shell(run + " update --install >" + output.string() + " 2>&1; echo $?"), "0\n")
        << testing::ReadFile(output);
    EXPECT_TRUE(testing::WaitFor([&] {
        return testing::ReadFile(output).ends_with("\nQuorvaRecorder 2.0.0\n");
    })) << testing::ReadFile(output);
    EXPECT_TRUE(testing::ReadFile(output).starts_with(
        "Checking for updates…\nNew version available: v2.0.0\nFaster pictures.\n"
        "Downloading update…\nVerifying and installing…\n"))
        << testing::ReadFile(output);
    EXPECT_EQ(Shell((install / "quorvarecorder").string() + " --version"), "QuorvaRecorder 2.0.0\n");
    EXPECT_TRUE(fs::exists(install / "portable-install.txt")) << "it can update itself again";
    EXPECT_FALSE(fs::exists(install.string() + ".old"));
    EXPECT_FALSE(fs::exists(install.string() + ".new"));
    EXPECT_TRUE(fs::is_empty(folder / "tmp")) << "the download was left behind";
    fs::remove_all(folder);
}

} // namespace
} // namespace quorva
