#include "remote/OSCQueryServer.h"

#include "NetworkTesting.h"

#include <stdexcept>

namespace quorva {
namespace {

using namespace quorva::testing;
using nlohmann::json;

// Statuses, attributes, the port search and malformed requests are driven through the whole program by
// the headless tests; here, what only a server of the test's own can show, its main thread busy at last.
TEST(OSCQueryServer, AnswersHostInfoContainersAndNodesWhoseValueCannotBeReadAndNoValuesWhenBusy) {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1); // no announcement here
    MainThread main;
    LogLines log;
    std::shared_ptr<OSCQueryServer> server = OSCQueryServer::make();
    ASSERT_TRUE(server->startOnPort(39370));
    const int port = int(server->httpPort());
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

    // A busy main thread gives the tree without values.
    main.loop->post([] { std::this_thread::sleep_for(std::chrono::milliseconds(1500)); });
    Answer answer = Curl(port, "/status/state");
    EXPECT_EQ(answer.status, 200);
    EXPECT_FALSE(json::parse(answer.body).contains("VALUE"));
    EXPECT_TRUE(log.has("OSCQuery: timed out reading values (main thread busy)"));
}

} // namespace
} // namespace quorva
