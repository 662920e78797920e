#include "remote/OSCQueryServer.h"

#include "NetworkTesting.h"

#include <gtest/gtest.h>
#include <stdexcept>

namespace quorva {
namespace {

using namespace quorva::testing;
using nlohmann::json;

struct OSCQueryServerTest : ::testing::Test {
    MainThread main;
    std::shared_ptr<OSCQueryServer> server = OSCQueryServer::make();
    int taken = BoundSocket(SOCK_STREAM);
    int port = 0;

    void SetUp() override {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1); // no announcement here
        ASSERT_TRUE(server->startOnPort(PortOf(taken)));
        port = int(server->httpPort());
    }
    void TearDown() override {
        server->stop();
        ::close(taken);
    }
};

// Statuses, attributes, the port search and malformed requests are driven through the whole program by
// the headless tests; here, what only a server of the test's own can show.
TEST_F(OSCQueryServerTest, AnswersHostInfoContainersAndNodesWhoseValueCannotBeRead) {
    json info = json::parse(Curl(port, "/?HOST_INFO").body);
    EXPECT_EQ(info["OSC_TRANSPORT"], "UDP");
    EXPECT_EQ(info["EXTENSIONS"]["VALUE"], true);

    server->registerOSCAddress("/status/state", "s", "State", 1, json::array(),
                               [] { return json::array({"idle"}); });
    server->registerOSCAddress("/status/broken", "s", "", 1, json::array(),
                               []() -> json { throw std::runtime_error("no controller"); });
    server->registerOSCAddress("/record/toggle", "", "Toggles");
    for (auto [target, body] : {
             std::pair{"/status/broken", R"({"ACCESS":1,"FULL_PATH":"/status/broken","TYPE":"s"})"},
             {"/record?CONTENTS",
              R"({"CONTENTS":{"toggle":{"ACCESS":2,"DESCRIPTION":"Toggles","FULL_PATH":"/record/toggle"}}})"},
         }) {
        Answer answer = Curl(port, target);
        EXPECT_EQ(answer.status, 200) << target;
        EXPECT_EQ(answer.body, body) << target;
    }
    json tree = json::parse(Curl(port, "/").body);
    EXPECT_EQ(tree["CONTENTS"]["status"]["CONTENTS"]["state"]["VALUE"], json::array({"idle"}));
}

TEST_F(OSCQueryServerTest, ABusyMainThreadGivesTheTreeWithoutValues) {
    LogLines log;
    server->registerOSCAddress("/gap", "i", "", 3, json::array(), [] { return json::array({12}); });
    main.loop->post([] { std::this_thread::sleep_for(std::chrono::milliseconds(1500)); });
    Answer answer = Curl(port, "/gap");
    EXPECT_EQ(answer.status, 200);
    EXPECT_FALSE(json::parse(answer.body).contains("VALUE"));
    EXPECT_TRUE(log.has("OSCQuery: timed out reading values (main thread busy)"));
}

} // namespace
} // namespace quorva
