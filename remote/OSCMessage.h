#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <variant>
#include <vector>

namespace quorva {

// One argument of an OSC message: a text, a number of one of the four OSC widths, or a boolean. Symbols
// arrive as texts; impulse, nil, blobs, time tags, characters, colours and MIDI are never kept.
using OSCArgument = std::variant<std::string, int32_t, int64_t, float, double, bool>;

// How an argument reads in a log line: texts as they are, numbers in plain decimal (floats in their
// shortest exact form, so 1.5 reads "1.5" and 0.1f reads "0.1"), booleans as 1 and 0 — the same values
// the encoder sends for them.
std::string DescriptionOfArgument(const OSCArgument& argument);

// One OSC message: an address and its arguments, as received or as to be sent. An immutable value.
//
// Datagrams come from anyone on the network, so parsing trusts nothing and is all-or-nothing: a datagram
// that is malformed anywhere, even after several good messages of a bundle, yields no message at all.
// Addresses are kept exactly as they arrive; nothing here matches patterns.
class OSCMessage {
public:
    OSCMessage(std::string address, std::vector<OSCArgument> arguments = {});

    const std::string& address() const { return _address; }
    const std::vector<OSCArgument>& arguments() const { return _arguments; }

    // "<address> <argument> <argument>…": the address, a blank, then the arguments joined by blanks
    // (so a message without arguments ends in a blank).
    std::string description() const;

    // Every message of one datagram, bundles flattened in order; empty when the datagram is rejected.
    static std::vector<OSCMessage> messagesFromPacket(std::span<const uint8_t> bytes);
    static std::vector<OSCMessage> messagesFromPacket(const uint8_t* bytes, size_t length);

    // The recursive parser behind messagesFromPacket. Appends to `into` as it goes, so a caller that
    // wants all-or-nothing must discard `into` on false. Depth counts enclosing bundles: the datagram
    // itself is at depth 0 and a bundle deeper than 15 is rejected, which bounds the recursion.
    static bool readPacket(const uint8_t* bytes, size_t length, int32_t depth, std::vector<OSCMessage>& into);
    static bool readBundle(const uint8_t* bytes, size_t length, int32_t depth, std::vector<OSCMessage>& into);

    // The message as one OSC packet. Texts go as 's'; floats and doubles as 'f' (doubles narrowed);
    // every integer and boolean as 'i' (64-bit integers truncated to their low 32 bits, booleans as 1/0):
    // the widest set of types that every OSC client understands.
    std::vector<uint8_t> packet() const;

    bool operator==(const OSCMessage&) const = default;

private:
    std::string _address;
    std::vector<OSCArgument> _arguments;
};

} // namespace quorva
