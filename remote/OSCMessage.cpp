#include "remote/OSCMessage.h"

#include "platform/UTF8.h"

#include <array>
#include <bit>
#include <charconv>
#include <cstring>
#include <optional>
#include <type_traits>
#include <utility>

namespace quorva {
namespace {

constexpr int32_t MaximumBundleDepth = 15;
constexpr size_t BundleHeaderLength = 16; // "#bundle\0" and an 8-byte time tag

uint32_t ReadUInt32(const uint8_t* p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | uint32_t(p[3]);
}

uint64_t ReadUInt64(const uint8_t* p) {
    return (uint64_t(ReadUInt32(p)) << 32) | ReadUInt32(p + 4);
}

void AppendUInt32(std::vector<uint8_t>& buffer, uint32_t value) {
    buffer.push_back(uint8_t(value >> 24));
    buffer.push_back(uint8_t(value >> 16));
    buffer.push_back(uint8_t(value >> 8));
    buffer.push_back(uint8_t(value));
}

// One OSC string at `position`: its text up to the first NUL, then padding to the next multiple of four
// (one to four NULs in all). The padding bytes themselves are not checked: some senders leave garbage
// there, and nothing is lost by accepting it.
std::optional<std::string> ReadString(const uint8_t* bytes, size_t length, size_t& position) {
    if (position >= length)
        return std::nullopt;
    const uint8_t* start = bytes + position;
    size_t remaining = length - position;
    const void* nul = std::memchr(start, 0, remaining);
    if (nul == nullptr)
        return std::nullopt;
    size_t count = size_t(static_cast<const uint8_t*>(nul) - start);
    size_t occupied = (count & ~size_t(3)) + 4;
    if (occupied > remaining)
        return std::nullopt;
    std::string text(reinterpret_cast<const char*>(start), count);
    if (!IsValidUTF8(text))
        return std::nullopt;
    position += occupied;
    return text;
}

void AppendString(std::vector<uint8_t>& buffer, const std::string& text) {
    buffer.insert(buffer.end(), text.begin(), text.end());
    buffer.insert(buffer.end(), 4 - text.size() % 4, 0);
}

// Reads one message, `bytes[0]` being its '/'. Bytes after the last argument are ignored.
bool ReadMessage(const uint8_t* bytes, size_t length, std::vector<OSCMessage>& into) {
    size_t position = 0;
    std::optional<std::string> address = ReadString(bytes, length, position);
    if (!address)
        return false;
    std::vector<OSCArgument> arguments;
    // Early OSC senders omit the type tag string; such a message simply has no arguments.
    if (position < length && bytes[position] == ',') {
        std::optional<std::string> tags = ReadString(bytes, length, position);
        if (!tags)
            return false;
        // Written so that no sum can overflow: `length - position` is what remains.
        auto take = [&](size_t count) -> const uint8_t* {
            if (length - position < count)
                return nullptr;
            const uint8_t* at = bytes + position;
            position += count;
            return at;
        };
        for (size_t t = 1; t < tags->size(); ++t) {
            const uint8_t* at;
            switch ((*tags)[t]) {
            case 'i':
                if (!(at = take(4)))
                    return false;
                arguments.emplace_back(static_cast<int32_t>(ReadUInt32(at)));
                break;
            case 'h':
                if (!(at = take(8)))
                    return false;
                arguments.emplace_back(static_cast<int64_t>(ReadUInt64(at)));
                break;
            case 'f':
                if (!(at = take(4)))
                    return false;
                arguments.emplace_back(std::bit_cast<float>(ReadUInt32(at)));
                break;
            case 'd':
                if (!(at = take(8)))
                    return false;
                arguments.emplace_back(std::bit_cast<double>(ReadUInt64(at)));
                break;
            case 's':
            case 'S': {
                std::optional<std::string> text = ReadString(bytes, length, position);
                if (!text)
                    return false;
                arguments.emplace_back(std::move(*text));
                break;
            }
            case 'T':
                arguments.emplace_back(true);
                break;
            case 'F':
                arguments.emplace_back(false);
                break;
            case 'I':
            case 'N':
                break;
            case 'c':
            case 'r':
            case 'm':
                if (!take(4))
                    return false;
                break;
            case 't':
                if (!take(8))
                    return false;
                break;
            case 'b': {
                if (!(at = take(4)))
                    return false;
                // 64-bit arithmetic: a size near 2^32 cannot wrap when rounded up.
                uint64_t rounded = (uint64_t(ReadUInt32(at)) + 3) & ~uint64_t(3);
                if (rounded > length - position || !take(size_t(rounded)))
                    return false;
                break;
            }
            default:
                // Arrays and anything unknown: the layout of what follows can no longer be trusted.
                return false;
            }
        }
    }
    into.emplace_back(std::move(*address), std::move(arguments));
    return true;
}

template <class... Ts>
struct Overloaded : Ts... {
    using Ts::operator()...;
};
template <class... Ts>
Overloaded(Ts...) -> Overloaded<Ts...>; // clang 14 does not deduce aggregates by itself

template <class Number>
std::string ShortestDecimal(Number value) {
    std::array<char, 64> text;
    auto result = std::to_chars(text.data(), text.data() + text.size(), value);
    return std::string(text.data(), result.ptr);
}

} // namespace

std::string DescriptionOfArgument(const OSCArgument& argument) {
    return std::visit(Overloaded{
                          [](const std::string& text) { return text; },
                          [](bool value) { return std::string(value ? "1" : "0"); },
                          [](auto number) { return ShortestDecimal(number); },
                      },
                      argument);
}

OSCMessage::OSCMessage(std::string address, std::vector<OSCArgument> arguments)
    : _address(std::move(address)), _arguments(std::move(arguments)) {}

std::string OSCMessage::description() const {
    std::string text = _address + " ";
    for (size_t i = 0; i < _arguments.size(); ++i) {
        if (i > 0)
            text += ' ';
        text += DescriptionOfArgument(_arguments[i]);
    }
    return text;
}

std::vector<OSCMessage> OSCMessage::messagesFromPacket(std::span<const uint8_t> bytes) {
    return messagesFromPacket(bytes.data(), bytes.size());
}

std::vector<OSCMessage> OSCMessage::messagesFromPacket(const uint8_t* bytes, size_t length) {
    std::vector<OSCMessage> messages;
    if (!readPacket(bytes, length, 0, messages))
        messages.clear();
    return messages;
}

bool OSCMessage::readPacket(const uint8_t* bytes, size_t length, int32_t depth,
                            std::vector<OSCMessage>& into) {
    if (length == 0)
        return false;
    if (bytes[0] == '/')
        return ReadMessage(bytes, length, into);
    if (bytes[0] == '#')
        return readBundle(bytes, length, depth, into);
    return false;
}

bool OSCMessage::readBundle(const uint8_t* bytes, size_t length, int32_t depth,
                            std::vector<OSCMessage>& into) {
    static constexpr char Tag[8] = {'#', 'b', 'u', 'n', 'd', 'l', 'e', '\0'};
    if (length < BundleHeaderLength || depth > MaximumBundleDepth || std::memcmp(bytes, Tag, sizeof Tag) != 0)
        return false;
    // The time tag (bytes 8 to 15) is ignored: a performer's controller wants its message acted on now.
    size_t offset = BundleHeaderLength;
    while (length - offset >= 4) {
        size_t size = ReadUInt32(bytes + offset);
        if (size > length - offset - 4)
            return false;
        if (!readPacket(bytes + offset + 4, size, depth + 1, into))
            return false;
        offset += 4 + size;
        if (offset >= length)
            return true;
    }
    // A bare header, or one to three stray bytes too few to hold another size word.
    return offset == length;
}

std::vector<uint8_t> OSCMessage::packet() const {
    std::string tags = ",";
    std::vector<uint8_t> data;
    for (const OSCArgument& argument : _arguments) {
        std::visit(
            [&](const auto& value) {
                using T = std::decay_t<decltype(value)>;
                if constexpr (std::is_same_v<T, std::string>) {
                    tags += 's';
                    AppendString(data, value);
                } else if constexpr (std::is_floating_point_v<T>) {
                    tags += 'f';
                    AppendUInt32(data, std::bit_cast<uint32_t>(static_cast<float>(value)));
                } else {
                    tags += 'i';
                    AppendUInt32(data, static_cast<uint32_t>(static_cast<int32_t>(value)));
                }
            },
            argument);
    }
    std::vector<uint8_t> bytes;
    bytes.reserve(_address.size() + tags.size() + data.size() + 8);
    AppendString(bytes, _address);
    AppendString(bytes, tags);
    bytes.insert(bytes.end(), data.begin(), data.end());
    return bytes;
}

} // namespace quorva
