#include "remote/HTTPRequest.h"
#include "remote/NetworkPorts.h"
#include "remote/OSCQueryNode.h"

#include <gtest/gtest.h>
#include <tuple>

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

TEST(HTTPRequest, MethodsAndTargetsGiveStatusPathAndQuery) {
    const std::tuple<std::string, std::string, int64_t, std::string, std::string> cases[] = {
        {"GET", "/gap?VALUE", 0, "/gap", "VALUE"},          {"HEAD", "/a%20b?VALUE=1&x", 0, "/a b", "VALUE"},
        {"GET", "?HOST_INFO", 0, "/", "HOST_INFO"},         {"GET", "/%zz%e9%4", 0, "/%zz%e9%4", ""},
        {"GET", "/\xe9t\xe9", 0, "/\xc3\xa9t\xc3\xa9", ""}, {"get", "/", 405, "", ""},
    };
    for (const auto& [method, target, status, path, query] : cases) {
        HTTPRequest request = HTTPRequest::Parse(method, target);
        EXPECT_EQ(request.status, status) << method << " " << target;
        EXPECT_EQ(request.path, path) << target;
        EXPECT_EQ(request.query, query) << target;
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
