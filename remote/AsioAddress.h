#pragma once

// Between Asio's addresses and the remote side's own rules; included only by the files that hold sockets.

#include "remote/AllowedNetworks.h"

#include <boost/asio/error.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/system/error_code.hpp>

#include <array>
#include <cstdint>
#include <cstring>
#include <string>

namespace quorva {

// A dual-stack socket's IPv4 peers come as IPv4-mapped IPv6 addresses; they are said as IPv4 ones.
inline boost::asio::ip::address Unmapped(const boost::asio::ip::address& address) {
    if (address.is_v6() && address.to_v6().is_v4_mapped())
        return boost::asio::ip::make_address_v4(boost::asio::ip::v4_mapped, address.to_v6());
    return address;
}

inline bool Allows(const AllowedNetworks& allowed, const boost::asio::ip::address& peer) {
    if (allowed.allowsEveryone())
        return true;
    std::array<uint8_t, 16> bytes{};
    if (peer.is_v4()) {
        bytes[10] = bytes[11] = 0xff;
        auto v4 = peer.to_v4().to_bytes();
        std::memcpy(bytes.data() + 12, v4.data(), 4);
    } else {
        auto v6 = peer.to_v6().to_bytes();
        std::memcpy(bytes.data(), v6.data(), 16);
    }
    return allowed.allows(bytes);
}

// Opens a socket on `bindAddress` and `port`, or on every interface when the address is empty: IPv6's
// "::" taking IPv4 too where the machine has IPv6, else IPv4's. `open(endpoint, dualStack)` opens the
// socket at that endpoint (bound, and listening where it listens), closes it again when it fails, and
// answers why it failed.
template <typename Protocol, typename Open>
bool OpenOnAddress(const std::string& bindAddress, uint16_t port, Open open) {
    using Endpoint = typename Protocol::endpoint;
    boost::system::error_code error;
    if (!bindAddress.empty()) {
        boost::asio::ip::address address = boost::asio::ip::make_address(bindAddress, error);
        return !error && !open(Endpoint(address, port), false);
    }
    error = open(Endpoint(Protocol::v6(), port), true);
    if (!error)
        return true;
    // Taken on IPv6 is taken: falling back to IPv4 would listen beside another program.
    if (error != boost::asio::error::address_family_not_supported &&
        error != boost::system::errc::address_not_available)
        return false;
    return !open(Endpoint(Protocol::v4(), port), false);
}

} // namespace quorva
