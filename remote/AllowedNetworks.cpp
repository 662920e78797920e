#include "remote/AllowedNetworks.h"

#include <arpa/inet.h>
#include <charconv>
#include <cstring>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace quorva {
namespace {

constexpr std::array<uint8_t, 12> MappedPrefix = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};

std::array<uint8_t, 16> Mapped(const in_addr& v4) {
    std::array<uint8_t, 16> address{};
    std::memcpy(address.data(), MappedPrefix.data(), MappedPrefix.size());
    std::memcpy(address.data() + 12, &v4, 4);
    return address;
}

bool SamePrefix(const std::array<uint8_t, 16>& a, const std::array<uint8_t, 16>& b, int bits) {
    int whole = bits / 8;
    if (std::memcmp(a.data(), b.data(), size_t(whole)) != 0)
        return false;
    if (bits % 8 == 0)
        return true;
    uint8_t mask = uint8_t(0xff << (8 - bits % 8));
    return (a[size_t(whole)] & mask) == (b[size_t(whole)] & mask);
}

} // namespace

std::optional<std::array<uint8_t, 16>> AllowedNetworks::AddressFrom(std::string_view text) {
    std::string copy(text); // inet_pton wants a terminated string
    in_addr v4{};
    if (::inet_pton(AF_INET, copy.c_str(), &v4) == 1)
        return Mapped(v4);
    in6_addr v6{};
    if (::inet_pton(AF_INET6, copy.c_str(), &v6) == 1) {
        std::array<uint8_t, 16> address;
        std::memcpy(address.data(), &v6, 16);
        return address;
    }
    return std::nullopt;
}

bool AllowedNetworks::add(std::string_view text) {
    std::string_view addressText = text, prefixText;
    if (size_t slash = text.find('/'); slash != std::string_view::npos) {
        addressText = text.substr(0, slash);
        prefixText = text.substr(slash + 1);
        if (prefixText.empty())
            return false;
    }
    auto address = AddressFrom(addressText);
    if (!address)
        return false;
    bool isV4 = addressText.find(':') == std::string_view::npos;
    int width = isV4 ? 32 : 128;
    int prefix = width;
    if (!prefixText.empty()) {
        auto [end, error] = std::from_chars(prefixText.data(), prefixText.data() + prefixText.size(), prefix);
        if (error != std::errc() || end != prefixText.data() + prefixText.size() || prefix < 0 ||
            prefix > width)
            return false;
    }
    _networks.push_back({*address, isV4 ? prefix + 96 : prefix, std::string(text)});
    return true;
}

bool AllowedNetworks::allows(const std::array<uint8_t, 16>& address) const {
    if (_networks.empty())
        return true;
    for (const Network& network : _networks) {
        if (SamePrefix(network.address, address, network.prefix))
            return true;
    }
    return false;
}

bool AllowedNetworks::allows(const sockaddr* peer) const {
    if (_networks.empty())
        return true;
    if (peer->sa_family == AF_INET)
        return allows(Mapped(reinterpret_cast<const sockaddr_in*>(peer)->sin_addr));
    if (peer->sa_family == AF_INET6) {
        std::array<uint8_t, 16> address;
        std::memcpy(address.data(), &reinterpret_cast<const sockaddr_in6*>(peer)->sin6_addr, 16);
        return allows(address);
    }
    return false;
}

std::string AllowedNetworks::description() const {
    if (_networks.empty())
        return "every host";
    std::string text;
    for (const Network& network : _networks)
        text += (text.empty() ? "" : ", ") + network.text;
    return text;
}

bool IsAddressOfThisMachine(const std::string& address) {
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST | AI_PASSIVE;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(address.c_str(), "0", &hints, &found) != 0 || !found)
        return false;
    bool bound = false;
    int fd = ::socket(found->ai_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd >= 0) {
        bound = ::bind(fd, found->ai_addr, found->ai_addrlen) == 0;
        ::close(fd);
    }
    ::freeaddrinfo(found);
    return bound;
}

} // namespace quorva
