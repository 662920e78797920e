#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct sockaddr;

namespace quorva {

// The hosts that may drive the recorder over the network: a list of networks, each an address with an
// optional prefix length ("192.168.10.0/24", "10.0.0.7", "fd00::/8", "::1"). An empty list allows every
// host. IPv4 networks are kept as IPv4-mapped IPv6 ones, so that a dual-stack socket's peers
// ("::ffff:192.168.10.4") and plain IPv4 peers match them alike.
class AllowedNetworks {
public:
    // Adds one network; false (and nothing added) when `text` is not an address, or its prefix is not a
    // whole number within the address's width.
    bool add(std::string_view text);

    bool allowsEveryone() const { return _networks.empty(); }
    // Whether a peer, as accept() or recvfrom() gives it (IPv4 or IPv6), lies in one of the networks.
    bool allows(const sockaddr* peer) const;
    bool allows(const std::array<uint8_t, 16>& address) const;

    // "everyone", or the networks as given, separated by commas.
    std::string description() const;

    // An address as text ("127.0.0.1", "::"), as IPv6 bytes with IPv4 mapped; nothing for anything else.
    static std::optional<std::array<uint8_t, 16>> AddressFrom(std::string_view text);

private:
    struct Network {
        std::array<uint8_t, 16> address;
        int prefix; // of the 128 bits
        std::string text;
    };
    std::vector<Network> _networks;
};

// Where the remote side listens and whom it serves: `bindAddress` empty for every interface, IPv6 and
// IPv4 alike where the machine has IPv6.
struct NetworkAccess {
    std::string bindAddress;
    AllowedNetworks allowed;
};

// Whether a socket can be bound to `address`: the one test of "an address of this machine" that asks
// the system itself, IPv6 link-local scopes ("fe80::1%eth0") included.
bool IsAddressOfThisMachine(const std::string& address);

} // namespace quorva
