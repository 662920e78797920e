#include "remote/HTTPRequest.h"
#include "remote/NetworkPorts.h"
#include "remote/OSCQueryNode.h"

#include <gtest/gtest.h>

namespace quorva {
namespace {

using nlohmann::json;

TEST(OSCQueryNode, RegistrationBuildsContainersAndMergesRepeatedAddresses) {
    auto root = OSCQueryNode::makeRoot();
    auto reg = [&](const std::string& address, const std::string& description, json range) {
        if (OSCQueryNode::IsRegistrableAddress(address))
            root->registerAddress(address, "i", description, 0, range, nullptr);
    };
    reg("/a/b", "first", json::array());
    EXPECT_EQ(root->jsonRepresentation()["CONTENTS"]["a"],
              json::parse(R"({"FULL_PATH":"/a","ACCESS":0,"CONTENTS":{"b":
                  {"FULL_PATH":"/a/b","ACCESS":2,"TYPE":"i","DESCRIPTION":"first"}}})"));
    reg("//a/", "", json::array());
    reg("/a/b", "second", json::parse(R"([{"VALS":[1,2]}])"));
    for (const char* refused : {"/", "", "a", "/x y", "/x*", "/x?", "/x[1]", "/{x}", "/x#", "/x,y"})
        reg(refused, "refused", json::array());

    std::vector<OSCQueryValueJob> jobs;
    root->registerAddress("/a/b", "f", "", 3, json::array(), [] { return json::array({7}); });
    json tree = root->jsonRepresentation(&jobs);
    EXPECT_EQ(tree, json::parse(R"({"FULL_PATH":"/","ACCESS":0,"CONTENTS":{"a":{"FULL_PATH":"/a","ACCESS":2,
        "TYPE":"i","CONTENTS":{"b":{"FULL_PATH":"/a/b","ACCESS":3,"TYPE":"i","DESCRIPTION":"first",
        "RANGE":[{"VALS":[1,2]}]}}}}})"));
    ASSERT_EQ(jobs.size(), 1u);
    EXPECT_EQ(jobs[0].where.to_string(), "/CONTENTS/a/CONTENTS/b");
    EXPECT_EQ(root->nodeForPath("//a//b/"), root->nodeForPath("/a/b"));
    EXPECT_EQ(root->nodeForPath("/a/c"), nullptr);
}

TEST(HTTPRequest, RequestLinesGiveStatusPathAndQuery) {
    struct Case {
        std::string head;
        int64_t status;
        std::string path, query;
    } cases[] = {
        {"GET /gap?VALUE HTTP/1.1\r\nHost: x\r\n\r\n", 0, "/gap", "VALUE"},
        {"HEAD /a%20b?VALUE=1&x HTTP/1.1\r\n\r\n", 0, "/a b", "VALUE"},
        {"GET ?HOST_INFO HTTP/1.1\r\n\r\n", 0, "/", "HOST_INFO"},
        {"GET /%zz%e9%4 HTTP/1.1\r\n\r\n", 0, "/%zz%e9%4", ""},
        {"GET /\xe9t\xe9\r\n\r\n", 0, "/\xc3\xa9t\xc3\xa9", ""},
        {"POST / HTTP/1.1\r\n\r\n", 405, "", ""},
        {"get / HTTP/1.1\r\n\r\n", 405, "", ""},
        {"GET\r\n/ HTTP/1.1\r\n\r\n", 400, "", ""},
        {"", 400, "", ""},
    };
    for (const Case& c : cases) {
        HTTPRequest request = HTTPRequest::Parse(c.head);
        EXPECT_EQ(request.status, c.status) << c.head;
        EXPECT_EQ(request.path, c.path) << c.head;
        EXPECT_EQ(request.query, c.query) << c.head;
    }
}

TEST(NetworkPorts, OnlyAWholeDecimalIntegerReplacesTheDefault) {
    for (auto [text, port] :
         {std::pair{"9000", 9000}, {"abc", 9230}, {"", 9230}, {"9000x", 9230}, {" 9000", 9230}}) {
        setenv("QUORVA_TEST_PORT", text, 1);
        EXPECT_EQ(PortFromEnvironment("QUORVA_TEST_PORT", DefaultOSCPort), port) << text;
    }
    unsetenv("QUORVA_TEST_PORT");
    EXPECT_EQ(PortFromEnvironment("QUORVA_TEST_PORT", DefaultOSCQueryPort), 9231);
}

} // namespace
} // namespace quorva
