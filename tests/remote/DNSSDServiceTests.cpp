#include "remote/OSCQueryServer.h"

#include "NetworkTesting.h"

namespace quorva {
namespace {

using namespace quorva::testing;

// A system bus and an Avahi daemon of the test's own. The daemon runs in a network namespace whose only
// interface is the loopback, so nothing is multicast beyond it, and with its own /run so that its pid file
// meets no other daemon's. Clients reach it through the bus, whose address the environment gives them.
struct AvahiTest : ::testing::Test {
    std::string dir = ::testing::TempDir() + "avahi-" + std::to_string(::getpid());
    pid_t bus = 0, daemon = 0;

    void SetUp() override {
        if (Shell("unshare -n -m true 2>/dev/null && echo yes") != "yes\n")
            GTEST_SKIP() << "new network namespaces are refused here";
        if (!Shell("for c in dbus-daemon avahi-daemon avahi-browse ip; do command -v $c >/dev/null || echo "
                   "$c; done")
                 .empty())
            GTEST_SKIP() << "dbus-daemon, avahi-daemon, avahi-browse or ip is missing";
        Shell("mkdir -p " + dir);
        std::ofstream(dir + "/bus.conf") << "<busconfig><type>system</type><listen>unix:path=" << dir
                                         << "/bus</listen><auth>EXTERNAL</auth><policy context=\"default\">"
                                            "<allow user=\"*\"/><allow own=\"*\"/><allow "
                                            "send_destination=\"*\"/><allow receive_sender=\"*\"/>"
                                            "</policy></busconfig>";
        std::ofstream(dir + "/avahi.conf") << "[server]\nuse-ipv4=yes\nuse-ipv6=no\nallow-interfaces=lo\n"
                                              "[wide-area]\nenable-wide-area=no\n";
        setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + dir + "/bus").c_str(), 1);
        bus = Spawn("exec dbus-daemon --nofork --config-file=" + dir + "/bus.conf 2>/dev/null");
        daemon = Spawn("exec unshare -n -m sh -c 'ip link set lo up && mount -t tmpfs none /run && "
                       "exec avahi-daemon --no-drop-root --no-chroot --no-rlimits -f " +
                       dir + "/avahi.conf' >" + dir + "/avahi.log 2>&1");
        // The daemon says so once its host name is probed and it answers clients; a busy machine (a
        // sanitised build beside other jobs) can take many seconds to get there.
        ASSERT_TRUE(WaitFor([&] { return daemonLog().find("Server startup complete") != std::string::npos; },
                            30, 0.05))
            << daemonLog();
    }
    std::string daemonLog() const { return Shell("cat " + dir + "/avahi.log"); }
    void TearDown() override {
        End(daemon);
        End(bus);
        Shell("rm -rf " + dir);
    }
};

TEST_F(AvahiTest, TheServiceIsFoundAndASecondOfTheSameNameIsRenamedWithItsPort) {
    MainThread main;
    LogLines log;
    auto first = OSCQueryServer::make(), second = OSCQueryServer::make();
    first->setServerName("QuorvaTest");
    second->setServerName("QuorvaTest");
    ASSERT_TRUE(first->startOnPort(39231));
    std::string port = std::to_string(first->httpPort());
    ASSERT_TRUE(log.waitFor("OSCQuery service published for Bonjour as \"QuorvaTest\" (_oscjson._tcp. port " +
                            port + ")"))
        << log.all() << daemonLog();

    ASSERT_TRUE(second->startOnPort(first->httpPort()));
    std::string renamed = "QuorvaTest " + std::to_string(second->httpPort());
    EXPECT_TRUE(log.waitFor("OSCQuery: nom Bonjour « QuorvaTest » déjà pris sur cette machine — nouvelle "
                            "tentative sous « " +
                            renamed + " »"));
    EXPECT_TRUE(log.waitFor("OSCQuery service published for Bonjour as \"" + renamed +
                            "\" (_oscjson._tcp. port " + std::to_string(second->httpPort()) + ")"));

    std::string found = Shell("timeout 20 avahi-browse -rtp _oscjson._tcp");
    EXPECT_NE(found.find("=;lo;IPv4;QuorvaTest;_oscjson._tcp;local;"), std::string::npos) << found;
    EXPECT_NE(found.find(";127.0.0.1;" + port + ";"), std::string::npos) << found;
    EXPECT_NE(found.find("QuorvaTest\\032" + std::to_string(second->httpPort())), std::string::npos) << found;
}

} // namespace
} // namespace quorva
