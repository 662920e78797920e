// A running `quorvarecorder --headless` driven by real clients only: oscsend, curl, the npm package
// oscquery, python3-websockets, and raw sockets for what no polite client sends. (Bundles, as oscsendfile
// sends them, are the receiver's tests'.)
#include "NetworkTesting.h"

#include <random>
#include <tuple>

namespace quorva {
namespace {

using namespace quorva::testing;
using nlohmann::json;
using namespace std::string_literals;

// Frames of the movie's picture track that ffprobe decodes: 0 for a movie that was never finished.
int FramesIn(const std::string& file) {
    const std::string count =
        "ffprobe -v error -count_frames -select_streams v:0 -show_entries stream=nb_read_frames";
    return std::atoi(Shell(count + " -of csv=p=0 '" + file + "'").c_str());
}

// One recorder for the tests that only talk to it, started with both of its default-to-be ports taken
// so that it has to search further, and bound to 127.0.0.1 alone.
struct HeadlessTest : ::testing::Test {
    static inline int takenUDP = -1, takenTCP = -1;
    static inline HeadlessRecorder* recorder = nullptr;

    static void SetUpTestSuite() {
        setenv("QUORVA_NDI_LIBRARY", "/nonexistent/libndi.so.6", 1); // no NDI here
        takenUDP = BoundSocket(SOCK_DGRAM);
        takenTCP = BoundSocket(SOCK_STREAM);
        recorder = new HeadlessRecorder("suite", PortOf(takenUDP), PortOf(takenTCP), "--bind 127.0.0.1");
    }
    static void TearDownTestSuite() {
        delete recorder;
        ::close(takenUDP);
        ::close(takenTCP);
    }
    const HeadlessRecorder& r = *recorder;
};

TEST_F(HeadlessTest, MessagesChangeSettingsOrSetTheErrorAfterAPortSearchOnTheAddressBound) {
    ASSERT_GT(r.queryPort, PortOf(takenTCP)) << r.log();
    ASSERT_GT(r.oscPort, PortOf(takenUDP));
    EXPECT_NE(r.log().find("OSC: every host may drive this recorder, on 127.0.0.1"), std::string::npos);
    // The loopback has other addresses than the one bound: nothing listens there.
    EXPECT_EQ(Shell("curl -s -o /dev/null -w '%{http_code}' --max-time 10 'http://127.0.0.2:" +
                    std::to_string(r.queryPort) + "/gap'"),
              "000");
    json info = json::parse(Curl(r.queryPort, "/?HOST_INFO").body);
    EXPECT_EQ(info["OSC_PORT"], r.oscPort);
    EXPECT_EQ(info["NAME"], "QuorvaRecorder");
    EXPECT_EQ(info["EXTENSIONS"]["LISTEN"], true);
    EXPECT_EQ(info["WS_PORT"], r.queryPort);
    EXPECT_EQ(r.value("/status/error"), 0);       // a status text that is not set reads 0
    EXPECT_EQ(r.value("/status/version"), "dev"); // not a release build
    EXPECT_EQ(r.value("/status/ndi"), 0);
    EXPECT_EQ(r.value("/status/ndi/reason"), "libndi.so.6 was not found in /nonexistent/libndi.so.6");

    const std::tuple<const char*, const char*, json> cases[] = {
        {"/gap s 12", "/gap", 12},
        {"/gap s 12px", "/status/error", "/gap expects a number"},
        {"/gap f 1e19", "/gap", 1000},
        {"/codec i 3", "/status/error", "/codec “3” is not one of h264, hevc, prores422, prores4444"},
        {"/record", "/status/error", "/record expects 1 to start or 0 to stop"},
        {"/layout s mosaic", "/status/error", "/layout “mosaic” is not one of row, column, grid, focus"},
        {"/layout s Grid", "/layout", "grid"},
        {"/status/state s busy", "/status/error", "/status/state can only be read"},
        {"/nothing i 1", "/status/error", "There is no OSC address “/nothing”"},
        {"/Gap i 3", "/status/error", "There is no OSC address “/Gap”"},
    };
    for (const auto& [message, address, expected] : cases) {
        r.send(message);
        EXPECT_EQ(r.value(address, expected), expected) << message;
    }

    // Without a daemon to announce it the recorder still serves, and its log says why, never that it is
    // published.
    const std::string unannounced =
        "OSCQuery: Bonjour publication failed: the Avahi daemon cannot be reached";
    EXPECT_TRUE(WaitFor([&] { return r.log().find(unannounced) != std::string::npos; }, 10, 0.1)) << r.log();
    EXPECT_EQ(r.log().find("published for Bonjour"), std::string::npos) << r.log();
}

TEST_F(HeadlessTest, OSCQueryAnswersAttributesAndStatusesAndTheWholeTreeToANodeClient) {
    const std::tuple<std::string, const char*, int, std::string> cases[] = {
        {"", "/%67ap?RANGE=1&x", 200, R"({"RANGE":[{"MAX":1000,"MIN":0}]})"},
        {"", "/status/source/3/file?VALUE", 200, R"({"VALUE":[""]})"},
        {"", "/record/toggle?ACCESS", 200, R"({"ACCESS":2})"},
        {"", "/status/version?ACCESS", 200, R"({"ACCESS":1})"},
        {"", "/gap?UNIT", 204, ""},
        {"", "/gap?FOO", 400, ""},
        {"-X POST", "/", 405, ""},
        {"", "/nothing", 404, ""},
        {"-I", "/gap", 200, ""},
    };
    for (const auto& [options, target, status, body] : cases) {
        Answer answer = Curl(r.queryPort, target, options);
        EXPECT_EQ(answer.status, status) << target;
        EXPECT_EQ(answer.body.empty() ? json() : json::parse(answer.body, nullptr, false),
                  body.empty() ? json() : json::parse(body))
            << target;
        if (options == "-I") {
            EXPECT_NE(answer.head.find("Content-Length: 0"), std::string::npos);
        }
    }

    std::string prefix = QUORVA_NPM_PREFIX;
    Shell("test -d " + prefix + "/node_modules/oscquery || npm install -s --no-audit --no-fund --prefix " +
          prefix + " oscquery@1.1.1 >/dev/null 2>&1");
    if (Shell("test -d " + prefix + "/node_modules/oscquery && echo yes") != "yes\n")
        GTEST_SKIP() << "the npm package oscquery could not be installed";
    std::string walk =
        Shell("NODE_PATH=" + prefix + "/node_modules node " QUORVA_TEST_SOURCE_DIR "/walk_oscquery.js " +
              std::to_string(r.queryPort));
    json walked = json::parse(walk, nullptr, false);
    ASSERT_TRUE(walked.is_object()) << walk;
    EXPECT_EQ(walked["methods"], 126);
    EXPECT_EQ(walked["gap"]["access"], 3);
    EXPECT_EQ(walked["sources"], 9); // "/source" and "/source/1" to "/source/8", each offering the patterns
}

TEST_F(HeadlessTest, GarbageSilenceAndAFloodAreSurvivedAndTheNextMessageStillWorks) {
    int udp = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in to = Loopback(r.oscPort);
    auto send = [&](const std::string& bytes) {
        ::sendto(udp, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
    };
    std::mt19937 random(7);
    std::string gap = "/gap\0\0\0\0,i\0\0\0\0\0\0"s, noise(64, '\0');
    for (int i = 0; i < 200; ++i) {
        std::generate(noise.begin(), noise.end(), [&] { return char(random()); });
        send(i % 2 ? noise.substr(0, random() % 64) : gap.substr(0, random() % gap.size()));
    }
    // A head that fills the largest buffer is answered; one cut short by the client is not.
    EXPECT_EQ(StatusLine(r.queryPort, std::string(16384, 'x')), "HTTP/1.1 400 Bad Request");
    EXPECT_EQ(StatusLine(r.queryPort, "GET /?HOST_INFO HTTP/1.1\r\nHost: x"), "");

    int silent = Connected(::socket(AF_INET, SOCK_STREAM, 0), r.queryPort); // connects, then says nothing

    for (int i = 0; i < 1000; ++i, send(gap))
        gap[14] = char(i >> 8), gap[15] = char(i);
    // A flood can fill the socket's buffer, and the kernel then drops any sender's datagrams: the
    // message after it is sent again until the recorder has it.
    EXPECT_TRUE(WaitFor(
        [&] {
            r.send("/gap i 7");
            return r.value("/gap") == 7;
        },
        10, 0.1));
    EXPECT_EQ(Curl(r.queryPort, "/gap?TYPE").body, R"({"TYPE":"i"})");
    ::close(silent);
    ::close(udp);
}

// Started with a folder root, the recorder takes "/folder" from the network only within it, ".." and
// links resolved.
TEST(Headless, AFolderRootKeepsTheFolderFromTheNetworkWithinIt) {
    // The recorder's own folder, made before it starts.
    const std::string dir = ::testing::TempDir() + "headless-root-" + std::to_string(::getpid());
    Shell("mkdir -p " + dir + "/shows/day1 && ln -s /etc " + dir + "/shows/away");
    const std::string root = std::filesystem::canonical(dir + "/shows").string();
    HeadlessRecorder r("root", 39340, 39341, "--folder-root " + dir + "/shows");
    ASSERT_NE(r.queryPort, 0) << r.log();
    r.send("/folder s " + dir + "/shows/day1");
    EXPECT_EQ(r.value("/folder", dir + "/shows/day1"), dir + "/shows/day1");
    for (const std::string& outside : {std::string("/etc"), dir + "/shows/../day1", dir + "/shows/away"}) {
        const std::string refusal =
            "/folder “" + outside + "” is outside “" + root +
            "”, the only folder that this recorder may be pointed at from the network";
        r.send("/folder s " + outside);
        EXPECT_EQ(r.value("/status/error", refusal), refusal);
    }
    EXPECT_EQ(r.value("/folder"), dir + "/shows/day1");
}

// A recording started and stopped over OSC, followed over OSCQuery. Then a controller listens over the
// WebSocket with python3-websockets while a take starts and stops over OSC, ignores the state and starts a
// take through the WebSocket itself, which SIGTERM cuts: it must still leave a finished movie and a clean
// exit.
TEST(Headless, ARecordingOverOSCOrTheWebSocketWritesMoviesThatItsStatusDescribesAndSIGTERMFinishesATake) {
    HeadlessRecorder r("take", 39330, 39331);
    ASSERT_NE(r.queryPort, 0) << r.log();
    // The camera test pattern as the first source, each source recorded to a file of its own.
    r.send("/source/1 s 720p30");
    r.send("/output s separate");
    r.send("/folder s " + r.dir);
    r.send("/name s take");
    ASSERT_EQ(r.value("/name", "take"), "take");
    ASSERT_EQ(r.value("/status/source/1/online", 1), 1) << r.log();
    // The disk holds some minutes, as the settings are expected to write before any take and during one
    // (a reading that is not a number throws, and fails the test).
    EXPECT_GT(r.value("/status/disk/minutes").get<double>(), 0);
    EXPECT_EQ(r.value("/status/report"), 0); // no take yet

    r.send("/record f 0.5");
    ASSERT_EQ(r.value("/status/state", "recording"), "recording") << r.log();
    EXPECT_EQ(r.value("/record"), 1);
    (void)WaitFor([&] { return r.value("/status/frames").get<int>() >= 10; }, 10, 0.1);
    EXPECT_GT(r.value("/status/disk/minutes").get<double>(), 0);
    r.send("/record i 0");
    ASSERT_EQ(r.value("/status/state", "idle"), "idle");
    // The take's report is published once it is written, beside the movie.
    EXPECT_EQ(r.value("/status/report", r.dir + "/take.html"), r.dir + "/take.html");

    std::string file = r.value("/status/file").get<std::string>();
    EXPECT_EQ(file, r.dir + "/take.mov");
    // The movie holds every picture counted, and on the slots that none reached, the one before.
    EXPECT_GE(FramesIn(file), r.value("/status/frames").get<int>());
    EXPECT_EQ(r.value("/status/source/1/file"), file);

    std::string out = Shell("/usr/bin/python3 " QUORVA_TEST_SOURCE_DIR "/websocket_client.py drive " +
                            std::to_string(r.queryPort) + " " + std::to_string(r.oscPort));
    json result = json::parse(out, nullptr, false);
    ASSERT_TRUE(result.contains("pushed")) << out << r.log();
    std::vector<json> states, gaps;
    for (size_t i = 0; i < result["pushed"].size(); ++i) {
        const json& push = result["pushed"][i];
        if (push[0] == "/status/state") {
            EXPECT_EQ(push[1], ",s");
            EXPECT_LT(i, result["ignoredFrom"].get<size_t>()) << "pushed after IGNORE: " << push;
            states.push_back(push[2][0]);
        } else if (push[0] == "/gap") {
            EXPECT_EQ(push[1], ",i");
            gaps.push_back(push[2][0]);
        }
    }
    EXPECT_EQ(gaps, (std::vector<json>{17, 18}));
    ASSERT_FALSE(states.empty()) << out;
    EXPECT_EQ(states.front(), "recording") << out;
    EXPECT_EQ(states.back(), "idle") << out;
    // The take that the WebSocket started, unheard since the state was ignored.
    ASSERT_EQ(r.value("/status/state", "recording"), "recording");
    std::string second = r.value("/status/file").get<std::string>();
    EXPECT_NE(second, file); // never overwritten
    std::this_thread::sleep_for(std::chrono::seconds(1));
    EXPECT_EQ(r.stop(), 0);
    EXPECT_GT(FramesIn(second), 0) << r.log();
}

// An OSC message from `host` (127.0.0.x) with one integer, over UDP.
void SendFrom(int host, int port, const std::string& address, int32_t value) {
    std::string packet = address + std::string(4 - address.size() % 4, '\0') + ",i\0\0"s;
    uint32_t big = htonl(uint32_t(value));
    packet.append(reinterpret_cast<const char*>(&big), 4);
    int fd = BoundSocket(SOCK_DGRAM, 0, host);
    sockaddr_in to = Loopback(port);
    ::sendto(fd, packet.data(), packet.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
    ::close(fd);
}

// With --allow, only the hosts named drive the recorder or read it, over OSC and OSCQuery alike (its
// WebSocket is upgraded from the same HTTP session, after the same check); the recorder listens on IPv6
// too where the machine has it.
TEST(Headless, OnlyTheAllowedHostsDriveOrReadTheRecorder) {
    HeadlessRecorder r("allow", 39360, 39361, "--allow 127.0.0.2 --allow ::1");
    ASSERT_NE(r.queryPort, 0) << r.log();
    EXPECT_NE(r.log().find("OSC: only 127.0.0.2, ::1 may drive this recorder"), std::string::npos) << r.log();
    const std::string allowed = "--interface 127.0.0.2";
    auto reads = [&](const std::string& address, int value) {
        return Curl(r.queryPort, address + "?VALUE", allowed).body ==
               R"({"VALUE":[)" + std::to_string(value) + "]}";
    };

    SendFrom(2, r.oscPort, "/gap", 23);
    EXPECT_TRUE(WaitFor([&] { return reads("/gap", 23); }, 20, 0.1));
    // Handled in the order sent: once the allowed host's second message is applied, the other's was seen.
    SendFrom(1, r.oscPort, "/gap", 24);
    SendFrom(1, r.oscPort, "/gap", 25);
    SendFrom(2, r.oscPort, "/width", 642);
    (void)WaitFor([&] { return reads("/width", 642); }, 20, 0.1);
    EXPECT_TRUE(reads("/gap", 23));
    const std::string refusal = "OSC: ignoring messages from 127.0.0.1, which is not an allowed host";
    std::string log = r.log();
    EXPECT_NE(log.find(refusal), std::string::npos) << log;
    EXPECT_EQ(log.find(refusal), log.rfind(refusal)) << "logged once a minute at most";

    EXPECT_EQ(Curl(r.queryPort, "/gap?VALUE").status, 403);
    if (Shell("grep -c ' lo$' /proc/net/if_inet6 2>/dev/null") == "1\n") {
        EXPECT_EQ(
            Shell("curl -s -g --max-time 10 'http://[::1]:" + std::to_string(r.queryPort) + "/gap?VALUE'"),
            R"({"VALUE":[23]})");
    }
}

} // namespace
} // namespace quorva
