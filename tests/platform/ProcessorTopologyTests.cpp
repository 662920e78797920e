#include "platform/ProcessorTopology.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>

namespace quorva {
namespace {

namespace fs = std::filesystem;

TEST(ProcessorCapacity, CountsEachCoreOnceAndItsSecondThreadAsAQuarterElseEveryProcessorOnline) {
    std::string pattern = (fs::temp_directory_path() / "quorva-topology-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    const fs::path folder = pattern;
    auto write = [&](const fs::path& path, const std::string& text) {
        fs::create_directories((folder / path).parent_path());
        std::ofstream(folder / path) << text << "\n";
    };

    // Four processors online, two cores of two threads each, and a fifth processor offline.
    write("online", "0-1,4-5");
    for (int cpu : {0, 1, 4, 5})
        write("cpu" + std::to_string(cpu) + "/topology/thread_siblings_list", cpu % 2 ? "1,5" : "0,4");
    write("cpu2/topology/thread_siblings_list", "2");
    EXPECT_DOUBLE_EQ(ProcessorCapacity(folder), 2 + 2 * SharedCoreGain);

    // A core whose other thread is offline counts whole.
    write("online", "0-1,4");
    write("cpu5/topology/thread_siblings_list", "oops");
    write("cpu1/topology/thread_siblings_list", "1");
    EXPECT_DOUBLE_EQ(ProcessorCapacity(folder), 2 + SharedCoreGain);

    // Without a topology that reads, every processor online counts.
    const double online = double(sysconf(_SC_NPROCESSORS_ONLN));
    write("online", "0-3");
    EXPECT_DOUBLE_EQ(ProcessorCapacity(folder), online) << "cpu3 has none";
    write("online", "garbage");
    EXPECT_DOUBLE_EQ(ProcessorCapacity(folder), online);
    fs::remove_all(folder);
}

} // namespace
} // namespace quorva
