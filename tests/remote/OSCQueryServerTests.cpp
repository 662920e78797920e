#include "remote/OSCQueryServer.h"

#include "NetworkTesting.h"

#include <arpa/inet.h>
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
        server->setServerName("Test");
        server->setOscPort(9000);
        ASSERT_TRUE(server->startOnPort(PortOf(taken)));
        port = int(server->httpPort());
    }
    void TearDown() override {
        server->stop();
        ::close(taken);
    }
};

TEST_F(OSCQueryServerTest, AnswersHostInfoTreeAndAttributesFromATakenPortOnward) {
    EXPECT_GT(port, PortOf(taken));
    json info = json::parse(Curl(port, "/?HOST_INFO").body);
    EXPECT_EQ(info["NAME"], "Test");
    EXPECT_EQ(info["OSC_PORT"], 9000);
    EXPECT_EQ(info["OSC_TRANSPORT"], "UDP");
    EXPECT_EQ(info["EXTENSIONS"]["VALUE"], true);

    server->registerOSCAddress("/gap", "i", "Pixels", 3, json::parse(R"([{"MIN":0,"MAX":1000}])"),
                               [] { return json::array({12}); });
    server->registerOSCAddress("/status/state", "s", "State", 1, json::array(),
                               [] { return json::array({"idle"}); });
    server->registerOSCAddress("/status/broken", "s", "", 1, json::array(),
                               []() -> json { throw std::runtime_error("no controller"); });
    server->registerOSCAddress("/record/toggle", "", "Toggles");

    struct Case {
        std::string target, options;
        int status;
        std::string body;
    } cases[] = {
        {"/gap?VALUE", "", 200, R"({"VALUE":[12]})"},
        {"/%67ap?RANGE=1&x", "", 200, R"({"RANGE":[{"MAX":1000,"MIN":0}]})"},
        {"/gap?UNIT", "", 204, ""},
        {"/gap?FOO", "", 400, ""},
        {"/", "-X POST", 405, ""},
        {"/nothing", "", 404, ""},
        {"/gap", "-I", 200, ""},
        {"/status/broken", "", 200, R"({"ACCESS":1,"FULL_PATH":"/status/broken","TYPE":"s"})"},
        {"/record?CONTENTS", "", 200,
         R"({"CONTENTS":{"toggle":{"ACCESS":2,"DESCRIPTION":"Toggles",)"
         R"("FULL_PATH":"/record/toggle"}}})"},
    };
    for (const Case& c : cases) {
        Answer answer = Curl(port, c.target, c.options);
        EXPECT_EQ(answer.status, c.status) << c.target;
        EXPECT_EQ(answer.body, c.body) << c.target;
        EXPECT_NE(answer.head.find("Content-Length: " + std::to_string(c.body.size())), std::string::npos);
    }
    json tree = json::parse(Curl(port, "/").body);
    EXPECT_EQ(tree["CONTENTS"]["status"]["ACCESS"], 0);
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

TEST_F(OSCQueryServerTest, MalformedRequestsAndSilentClientsDoNotStopTheServer) {
    int silent = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(uint16_t(port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::connect(silent, reinterpret_cast<sockaddr*>(&to), sizeof to), 0);

    EXPECT_EQ(StatusLine(port, std::string("\0\xff\r\n\r\n", 6)), "HTTP/1.1 400 Bad Request");
    EXPECT_EQ(StatusLine(port, std::string(16384, 'A')), "HTTP/1.1 400 Bad Request");
    EXPECT_EQ(StatusLine(port, "GET /\xe9t\xe9%ff HTTP/1.1\r\n\r\n"), "HTTP/1.1 404 Not Found");
    EXPECT_EQ(StatusLine(port, "DELETE / HTTP/1.1\r\n\r\n"), "HTTP/1.1 405 Method Not Allowed");
    EXPECT_EQ(StatusLine(port, "GET /?HOST_INFO HTTP/1.1\r\nHost: x"), ""); // head never complete
    EXPECT_EQ(Curl(port, "/?HOST_INFO").status, 200);
    ::close(silent);
}

} // namespace
} // namespace quorva
