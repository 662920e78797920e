// Feeds arbitrary datagrams to the OSC parser. Beyond surviving them (the sanitizers catch reads out of
// bounds, leaks and undefined behaviour), it checks what the rest of the program relies on: parsing is
// deterministic, all-or-nothing, and every message it yields can be sent on and read back as itself.
#include "remote/OSCMessage.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <type_traits>

namespace {

using quorva::OSCArgument;
using quorva::OSCMessage;

void Check(bool condition, const char* what, const OSCMessage& message) {
    if (condition)
        return;
    std::fprintf(stderr, "OSC fuzzer: %s: %s\n", what, message.description().c_str());
    std::abort();
}

// The encoder sends texts as texts, every integer and boolean as a 32-bit integer and every float as a
// 32-bit float; this is what a received argument must read back as.
OSCArgument AsSent(const OSCArgument& argument) {
    return std::visit(
        [](const auto& value) -> OSCArgument {
            using T = std::decay_t<decltype(value)>;
            if constexpr (std::is_same_v<T, std::string>)
                return value;
            else if constexpr (std::is_floating_point_v<T>)
                return static_cast<float>(value);
            else
                return static_cast<int32_t>(value);
        },
        argument);
}

// Bit for bit, so that a NaN equals itself: two parses of the same bytes must agree exactly. With
// `anyNaN`, any NaN is the same NaN, as narrowing to a float may quieten its payload.
bool Same(const OSCArgument& x, const OSCArgument& y, bool anyNaN = false) {
    if (x.index() != y.index())
        return false;
    if (const float* f = std::get_if<float>(&x)) {
        const float g = std::get<float>(y);
        return anyNaN && std::isnan(*f) ? std::isnan(g)
                                        : std::bit_cast<uint32_t>(*f) == std::bit_cast<uint32_t>(g);
    }
    if (const double* d = std::get_if<double>(&x))
        return std::bit_cast<uint64_t>(*d) == std::bit_cast<uint64_t>(std::get<double>(y));
    return x == y;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<OSCMessage> into;
    bool accepted = OSCMessage::readPacket(data, size, 0, into);
    std::vector<OSCMessage> messages = OSCMessage::messagesFromPacket(data, size);
    if (!accepted && !messages.empty())
        std::abort(); // a rejected datagram must yield nothing
    if (accepted && messages.size() != into.size())
        std::abort(); // parsing twice must give the same answer

    for (size_t m = 0; m < messages.size(); ++m) {
        const OSCMessage& message = messages[m];
        const auto& arguments = message.arguments();
        Check(message.address() == into[m].address() &&
                  std::ranges::equal(arguments, into[m].arguments(),
                                     [](auto& x, auto& y) { return Same(x, y); }),
              "parse is not deterministic", message);
        Check(!message.address().empty() && message.address()[0] == '/', "address without '/'", message);

        std::vector<uint8_t> packet = message.packet();
        Check(packet.size() % 4 == 0, "packet not a multiple of four bytes", message);
        std::vector<OSCMessage> again = OSCMessage::messagesFromPacket(packet);
        Check(again.size() == 1, "encoded message does not parse as one message", message);
        Check(again[0].address() == message.address(), "address changed in a round trip", message);
        Check(
            std::ranges::equal(arguments, again[0].arguments(),
                               [](auto& sent, auto& received) { return Same(AsSent(sent), received, true); }),
            "arguments changed in a round trip", message);
        // Re-encoding what came back is a fixed point.
        Check(again[0].packet() == packet, "encoding is not stable", message);
        (void)message.description();
    }
    return 0;
}
