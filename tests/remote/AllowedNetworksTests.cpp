#include "remote/AllowedNetworks.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

namespace quorva {
namespace {

TEST(AllowedNetworks, TakesAddressesAndNetworksOfBothFamiliesAndRefusesEverythingElse) {
    AllowedNetworks allowed;
    for (const char* good : {"10.0.0.7", "192.168.10.0/24", "0.0.0.0/0", "10.0.0.0/32", "::1", "fd00::/8",
                             "::ffff:10.1.2.3", "::/0", "fe80::/128"})
        EXPECT_TRUE(allowed.add(good)) << good;
    for (const char* bad : {"", "10.0.0.256", "10.0.0", "10.0.0.0/33", "10.0.0.0/", "/8", "10.0.0.0/-1",
                            "10.0.0.0/2x", "10.0.0.0/24/1", " 10.0.0.1", "fd00::/129", "recorder.local"})
        EXPECT_FALSE(allowed.add(bad)) << bad;
    EXPECT_EQ(allowed.description(), "10.0.0.7, 192.168.10.0/24, 0.0.0.0/0, 10.0.0.0/32, ::1, fd00::/8, "
                                     "::ffff:10.1.2.3, ::/0, fe80::/128");
}

TEST(AllowedNetworks, MatchesPeersOfEitherFamilyUpToThePrefixAndIPv4AsMappedIPv6) {
    AllowedNetworks none;
    EXPECT_TRUE(none.allowsEveryone());
    EXPECT_TRUE(none.allows(*AllowedNetworks::AddressFrom("203.0.113.9")));

    AllowedNetworks allowed;
    ASSERT_TRUE(allowed.add("192.168.10.0/23"));
    ASSERT_TRUE(allowed.add("fd00::/9"));
    EXPECT_FALSE(allowed.allowsEveryone());
    // "::ffff:192.168.11.4" is a dual-stack socket's IPv4 peer; "::c0a8:a04" the same 32 bits, not mapped:
    // another address.
    for (const char* address : {"192.168.10.0", "192.168.11.255", "::ffff:192.168.11.4", "fd7f::1"})
        EXPECT_TRUE(allowed.allows(*AllowedNetworks::AddressFrom(address))) << address;
    for (const char* address : {"192.168.12.0", "192.168.9.255", "fd80::1", "::c0a8:a04"})
        EXPECT_FALSE(allowed.allows(*AllowedNetworks::AddressFrom(address))) << address;

    sockaddr_in v4{AF_INET, 0, {}, {}};
    ::inet_pton(AF_INET, "192.168.10.4", &v4.sin_addr);
    EXPECT_TRUE(allowed.allows(reinterpret_cast<const sockaddr*>(&v4)));
    sockaddr_in6 v6{AF_INET6, 0, 0, {}, 0};
    ::inet_pton(AF_INET6, "::ffff:192.168.10.4", &v6.sin6_addr);
    EXPECT_TRUE(allowed.allows(reinterpret_cast<const sockaddr*>(&v6)));
    ::inet_pton(AF_INET6, "2001:db8::1", &v6.sin6_addr);
    EXPECT_FALSE(allowed.allows(reinterpret_cast<const sockaddr*>(&v6)));

    // Every IPv4 host is not every host.
    AllowedNetworks v4Only;
    ASSERT_TRUE(v4Only.add("0.0.0.0/0"));
    EXPECT_TRUE(v4Only.allows(*AllowedNetworks::AddressFrom("198.51.100.1")));
    EXPECT_FALSE(v4Only.allows(*AllowedNetworks::AddressFrom("2001:db8::1")));
}

} // namespace
} // namespace quorva
