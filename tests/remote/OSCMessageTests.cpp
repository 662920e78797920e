#include "remote/OSCMessage.h"

#include <gtest/gtest.h>

#include <limits>
#include <string_view>
#include <tuple>

namespace quorva {
namespace {

using namespace std::string_literals;
using namespace std::string_view_literals;
using Bytes = std::vector<uint8_t>;

// Packets are written out byte by byte in the tests, padding included, so that the tests do not share
// the codec's own idea of where padding goes.
Bytes B(std::string_view text) {
    return Bytes(text.begin(), text.end());
}

Bytes Word(uint32_t value) {
    return {uint8_t(value >> 24), uint8_t(value >> 16), uint8_t(value >> 8), uint8_t(value)};
}

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

const Bytes BundleHeader = B("#bundle\0"sv) + Word(0) + Word(1); // time tag "immediately"

Bytes Bundle(std::initializer_list<Bytes> elements) {
    Bytes bytes = BundleHeader;
    for (const Bytes& element : elements)
        bytes = bytes + Word(uint32_t(element.size())) + element;
    return bytes;
}

// The messages of a datagram as their descriptions joined by " | ", or "rejected". The recursive parser
// decides; whatever it got through before the fault, nothing of a rejected datagram may be handed on.
std::string Read(const Bytes& bytes) {
    std::vector<OSCMessage> partial;
    std::vector<OSCMessage> messages = OSCMessage::messagesFromPacket(bytes);
    if (!OSCMessage::readPacket(bytes.data(), bytes.size(), 0, partial)) {
        EXPECT_TRUE(messages.empty()) << "a rejected datagram gave messages";
        return "rejected";
    }
    std::string read;
    for (const OSCMessage& message : messages)
        read += (read.empty() ? "" : " | ") + message.description();
    return read;
}

const Bytes Rec = B("/rec\0\0\0\0"sv);

Bytes Nested(int levels) {
    Bytes bytes = Rec;
    for (int i = 0; i < levels; ++i)
        bytes = Bundle({bytes});
    return bytes;
}

TEST(OSCMessageParse, DatagramsAreReadWholeOrRejectedWhole) {
    const Bytes a = B("/a\0\0,i\0\0"sv) + Word(1), text = B("/t\0\0,s\0\0"sv), blob = B("/b\0\0,b\0\0"sv);
    const Bytes p = B("/p\0\0"sv), u = B("/u\0\0"sv), good = B("/good\0\0\0"sv),
                bad = B("/bad\0\0\0\0,q\0\0"sv);
    std::vector<std::tuple<std::string, Bytes, std::string>> cases = {
        {"no type tags", Rec, "/rec "},
        {"no tag string after the address", Rec + Word(7), "/rec "},
        {"text of eight bytes", text + B("abcd\0\0\0\0"sv), "/t abcd"},
        {"text one byte short", text + B("abcd\0\0\0"sv), "rejected"},
        {"text without a NUL", text + B("abcd"sv), "rejected"},
        {"text missing", text, "rejected"},
        {"padding need not be zero", B("/ab\0"sv) + B(",s\0X"sv) + B("hi\0Y"sv), "/ab hi"},
        {"T and F take no data", p + B(",iTF\0\0\0\0"sv) + Word(3), "/p 3 1 0"},
        {"N and I are dropped", p + B(",NI\0"sv), "/p "},
        // A 64-bit integer that 32 bits cannot hold, and a double that a float would round.
        {"h d S",
         p + B(",hdS\0\0\0\0"sv) + Word(0x80000000u) + Word(5) + Word(0x3FD55555u) + Word(0x55555555u) +
             B("sym\0"sv),
         "/p -9223372036854775803 0.3333333333333333 sym"},
        {"a skipped blob leaves no gap", p + B(",bi\0"sv) + Word(2) + B("xy\0\0"sv) + Word(9), "/p 9"},
        {"no tag at all", p + B(",\0\0\0"sv), "/p "},
        {"empty blob", blob + Word(0), "/b "},
        {"blob rounded up", blob + Word(5) + B("12345\0\0\0"sv), "/b "},
        {"blob rounding past the end", blob + Word(5) + B("12345\0\0"sv), "rejected"},
        {"blob size cut short", blob + B("\0\0\0"sv), "rejected"},
        // Sizes near 2^32 must not wrap around into something small.
        {"blob of 2^32 - 1", blob + Word(0xFFFFFFFFu) + Word(0), "rejected"},
        {"blob of 2^31", blob + Word(0x80000000u) + Word(0), "rejected"},
        {"array tags", u + B(",[i]\0\0\0\0"sv) + Word(1), "rejected"},
        {"unknown tag", u + B(",ix\0"sv) + Word(1) + Word(2), "rejected"},
        {"empty datagram", {}, "rejected"},
        {"no slash", B("rec\0"sv), "rejected"},
        {"empty bundle", BundleHeader, ""},
        {"bundle header cut short", Bytes(BundleHeader.begin(), BundleHeader.end() - 1), "rejected"},
        {"misspelt bundle", B("#bundlX\0"sv) + Word(0) + Word(1), "rejected"},
        {"bundle tag without its NUL", B("#bundle!"sv) + Word(0) + Word(1), "rejected"},
        {"nested bundles in order", Bundle({a, Bundle({B("/b\0\0"sv), BundleHeader}), text + B("x\0\0\0"sv)}),
         "/a 1 | /b  | /t x"},
        // An element of 13 bytes: its message ignores the stray byte, and the next size word follows it
        // directly, unaligned.
        {"element of an odd size", Bundle({a + B("!"), B("/b\0\0"sv)}), "/a 1 | /b "},
        {"element size past the end", BundleHeader + Word(uint32_t(a.size() + 1)) + a, "rejected"},
        {"element size short of its message", BundleHeader + Word(uint32_t(a.size() - 1)) + a, "rejected"},
        {"element size 2^32 - 1", BundleHeader + Word(0xFFFFFFFFu) + a, "rejected"},
        {"empty element", BundleHeader + Word(0) + a, "rejected"},
        {"one bad element", Bundle({good, bad}), "rejected"},
        {"one bad element deeper down", Bundle({good, Bundle({good, bad})}), "rejected"},
        {"sixteen levels", Nested(16), "/rec "},
        {"seventeen levels", Nested(17), "rejected"},
    };
    // Each padded address is accepted at its exact length and rejected one byte short.
    for (std::string_view padded : {"/\0\0\0"sv, "/a\0\0"sv, "/ab\0"sv, "/abc\0\0\0\0"sv, "/abcd\0\0\0"sv}) {
        std::string address(padded.substr(0, padded.find('\0')));
        cases.push_back({address, B(padded), address + " "});
        cases.push_back({address + " one short", B(padded.substr(0, padded.size() - 1)), "rejected"});
    }
    // Stray bytes after a bundle's header or its last element.
    for (size_t extra = 1; extra <= 4; ++extra) {
        cases.push_back({"header and " + std::to_string(extra), BundleHeader + Bytes(extra, 0), "rejected"});
        cases.push_back(
            {"element and " + std::to_string(extra), Bundle({Rec}) + Bytes(extra, 0), "rejected"});
    }
    // Fixed-size items are accepted whole and rejected one byte short.
    for (char tag : "ifcrmhdt"sv) {
        Bytes data = Word(0x01020304) + Word(0x05060708);
        data.resize(std::string_view("hdt").find(tag) != std::string_view::npos ? 8 : 4);
        Bytes head = B("/n\0\0,"sv) + B(std::string(1, tag)) + B("\0\0"sv);
        cases.push_back({std::string(1, tag), head + data, "accepted"});
        cases.push_back(
            {std::string(1, tag) + " one short", head + Bytes(data.begin(), data.end() - 1), "rejected"});
    }
    // Texts, and addresses read the same way, are strict UTF-8. Accepted: the first and last code point of
    // each sequence length, and both sides of the surrogates. Rejected: overlong forms, surrogates, code
    // points past U+10FFFF, stray and missing continuation bytes.
    auto utf8 = [&](std::string_view sample, bool valid) {
        Bytes padded = B(sample);
        padded.resize((padded.size() / 4 + 1) * 4, 0);
        std::string name = testing::PrintToString(std::string(sample)), kept(sample);
        cases.push_back({name, text + padded, valid ? "/t " + kept : "rejected"});
    };
    for (std::string_view valid : {"\x7F"sv, "\xC2\x80"sv, "\xDF\xBF"sv, "\xE0\xA0\x80"sv, "\xED\x9F\xBF"sv,
                                   "\xEE\x80\x80"sv, "\xEF\xBF\xBF"sv, "\xF0\x90\x80\x80"sv,
                                   "\xF4\x8F\xBF\xBF"sv, "caf\xC3\xA9\xE2\x82\xAC\xF0\x9D\x84\x9E"sv})
        utf8(valid, true);
    for (std::string_view invalid :
         {"\xC0\xAF"sv, "\xC1\xBF"sv, "\xE0\x9F\xBF"sv, "\xF0\x8F\xBF\xBF"sv, "\xED\xA0\x80"sv,
          "\xED\xBF\xBF"sv, "\xF4\x90\x80\x80"sv, "\xF5\x80\x80\x80"sv, "\xFF"sv, "\x80"sv, "\xE2\x82"sv,
          "a\xC3"sv, "\xE2\x28\xA1"sv, "\xF0\x90\x80\x28"sv})
        utf8(invalid, false);

    for (const auto& [name, bytes, expected] : cases) {
        if (expected == "accepted")
            EXPECT_NE(Read(bytes), "rejected") << name;
        else
            EXPECT_EQ(Read(bytes), expected) << name;
    }
}

TEST(OSCMessageEncode, TextsEndInOneToFourNulsNumbersGoAsInt32OrFloat32AndTheParserReadsThemBack) {
    EXPECT_EQ(OSCMessage("/rec").packet(), B("/rec\0\0\0\0,\0\0\0"sv));
    EXPECT_EQ(OSCMessage("/ab", {""s, "xyz"s, "wxyz"s}).packet(),
              B("/ab\0,sss\0\0\0\0"sv) + B("\0\0\0\0"sv) + B("xyz\0"sv) + B("wxyz\0\0\0\0"sv));
    OSCMessage numbers("/n", {int32_t(-1), int64_t(0x1'2345'6789), true, false, 0.1f, 1e300, -0.0});
    EXPECT_EQ(numbers.packet(), B("/n\0\0,iiiifff\0\0\0\0"sv) + Word(0xFFFFFFFFu) + Word(0x23456789u) +
                                    Word(1) + Word(0) + Word(0x3DCCCCCDu) + Word(0x7F800000u) +
                                    Word(0x80000000u));

    OSCMessage kept("/layout/gap", {"grid"s, int32_t(-7), 0.25f, "é"s, std::numeric_limits<float>::max()});
    auto messages = OSCMessage::messagesFromPacket(kept.packet());
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0], kept);
}

} // namespace
} // namespace quorva
