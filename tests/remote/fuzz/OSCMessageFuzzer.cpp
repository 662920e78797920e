// Feeds arbitrary datagrams to the OSC parser. Beyond surviving them (the sanitizers catch reads out of
// bounds, leaks and undefined behaviour), it checks what the rest of the program relies on: parsing is
// deterministic, all-or-nothing, and every message it yields can be sent on and read back as itself.
#include "remote/OSCMessage.h"

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <type_traits>
#include <variant>
#include <vector>

namespace {

void Fail(const char* what, const quorva::OSCMessage& message) {
    std::fprintf(stderr, "OSC fuzzer: %s: %s\n", what, message.description().c_str());
    std::abort();
}

void Check(bool condition, const char* what, const quorva::OSCMessage& message) {
    if (!condition)
        Fail(what, message);
}

// The encoder sends texts as texts, every integer and boolean as a 32-bit integer and every float as a
// 32-bit float; this is what a received argument must read back as.
quorva::OSCArgument AsSent(const quorva::OSCArgument& argument) {
    return std::visit(
        [](const auto& value) -> quorva::OSCArgument {
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

bool SameArgument(const quorva::OSCArgument& sent, const quorva::OSCArgument& received) {
    if (sent.index() != received.index())
        return false;
    if (const float* f = std::get_if<float>(&sent)) {
        float g = std::get<float>(received);
        // NaN payloads may be quietened by the narrowing; any NaN is the same NaN here.
        if (std::isnan(*f))
            return std::isnan(g);
        return std::bit_cast<uint32_t>(*f) == std::bit_cast<uint32_t>(g);
    }
    return sent == received;
}

// Bit for bit, so that a NaN equals itself: two parses of the same bytes must agree exactly.
bool Identical(const quorva::OSCMessage& a, const quorva::OSCMessage& b) {
    if (a.address() != b.address() || a.arguments().size() != b.arguments().size())
        return false;
    for (size_t i = 0; i < a.arguments().size(); ++i) {
        const quorva::OSCArgument& x = a.arguments()[i];
        const quorva::OSCArgument& y = b.arguments()[i];
        if (x.index() != y.index())
            return false;
        if (const float* f = std::get_if<float>(&x)) {
            if (std::bit_cast<uint32_t>(*f) != std::bit_cast<uint32_t>(std::get<float>(y)))
                return false;
        } else if (const double* d = std::get_if<double>(&x)) {
            if (std::bit_cast<uint64_t>(*d) != std::bit_cast<uint64_t>(std::get<double>(y)))
                return false;
        } else if (x != y) {
            return false;
        }
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using quorva::OSCMessage;

    std::vector<OSCMessage> into;
    bool accepted = OSCMessage::readPacket(data, size, 0, into);
    std::vector<OSCMessage> messages = OSCMessage::messagesFromPacket(data, size);
    if (!accepted && !messages.empty())
        std::abort(); // a rejected datagram must yield nothing
    if (accepted && messages.size() != into.size())
        std::abort(); // parsing twice must give the same answer

    for (size_t m = 0; m < messages.size(); ++m) {
        const OSCMessage& message = messages[m];
        Check(Identical(message, into[m]), "parse is not deterministic", message);
        Check(!message.address().empty() && message.address()[0] == '/', "address without '/'", message);

        std::vector<uint8_t> packet = message.packet();
        Check(packet.size() % 4 == 0, "packet not a multiple of four bytes", message);
        std::vector<OSCMessage> again = OSCMessage::messagesFromPacket(packet);
        Check(again.size() == 1, "encoded message does not parse as one message", message);
        Check(again[0].address() == message.address(), "address changed in a round trip", message);
        const auto& sent = message.arguments();
        const auto& received = again[0].arguments();
        Check(sent.size() == received.size(), "argument count changed in a round trip", message);
        for (size_t a = 0; a < sent.size(); ++a)
            Check(SameArgument(AsSent(sent[a]), received[a]), "argument changed in a round trip", message);

        // Re-encoding what came back is a fixed point.
        Check(again[0].packet() == packet, "encoding is not stable", message);
        (void)message.description();
    }
    return 0;
}
