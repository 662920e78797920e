#include "remote/OSCMessage.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string_view>

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

std::vector<OSCMessage> Parse(const Bytes& bytes) {
    return OSCMessage::messagesFromPacket(bytes);
}

// Accepted-but-empty and rejected look alike through messagesFromPacket; the parser's answer tells them
// apart.
bool Accepts(const Bytes& bytes) {
    std::vector<OSCMessage> messages;
    return OSCMessage::readPacket(bytes.data(), bytes.size(), 0, messages);
}

const Bytes Rec = B("/rec\0\0\0\0"sv);

// --- Messages ---------------------------------------------------------------------------------------

TEST(OSCMessageParse, AnAddressWithoutTypeTagsIsAMessageWithoutArguments) {
    auto messages = Parse(Rec);
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].address(), "/rec");
    EXPECT_TRUE(messages[0].arguments().empty());

    // Whatever follows, if it is not a tag string, is not looked at.
    messages = Parse(Rec + Word(7));
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_TRUE(messages[0].arguments().empty());
}

TEST(OSCMessageParse, StringsTakeOneToFourNulsAndMustFitWhole) {
    // Each padded address is accepted at its exact length and rejected one byte short.
    for (std::string_view padded : {"/\0\0\0"sv, "/a\0\0"sv, "/ab\0"sv, "/abc\0\0\0\0"sv, "/abcd\0\0\0"sv}) {
        SCOPED_TRACE(std::string(padded.substr(0, padded.find('\0'))));
        EXPECT_EQ(Parse(B(padded)).size(), 1u);
        EXPECT_FALSE(Accepts(B(padded.substr(0, padded.size() - 1))));
    }
    // The same rule for a text argument: "abcd" needs eight bytes.
    const Bytes head = B("/t\0\0,s\0\0"sv);
    EXPECT_EQ(Parse(head + B("abcd\0\0\0\0"sv)).size(), 1u);
    EXPECT_FALSE(Accepts(head + B("abcd\0\0\0"sv)));
    EXPECT_FALSE(Accepts(head + B("abcd"sv))); // no NUL before the end
    EXPECT_FALSE(Accepts(head));               // nothing left to read
}

TEST(OSCMessageParse, PaddingNeedNotBeZero) {
    auto messages = Parse(B("/ab\0"sv) + B(",s\0X"sv) + B("hi\0Y"sv));
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].address(), "/ab");
    EXPECT_EQ(messages[0].arguments(), std::vector<OSCArgument>{"hi"s});
}

TEST(OSCMessageParse, EveryTagConsumesItsOwnWidth) {
    // A text after every item that is skipped shows that each consumed exactly its width: any slip
    // would read the following text from the wrong place.
    Bytes bytes = B("/all\0\0\0\0"sv) + B(",ihfdsSTFINcsrsmstsbsbs\0"sv) //
                  + Word(uint32_t(-2))                                   // i
                  + Word(0x80000000u) + Word(5)                          // h
                  + Word(0x3FC00000u)                                    // f 1.5
                  + Word(0xC0040000u) + Word(0)                          // d -2.5
                  + B("text\0\0\0\0"sv) + B("sym\0"sv)                   // s S
                  + Word(0x41) + B("c\0\0\0"sv)                          // c s
                  + Word(0xFF0000FF) + B("r\0\0\0"sv)                    // r s
                  + Word(0x00904060) + B("m\0\0\0"sv)                    // m s
                  + Word(1) + Word(2) + B("t\0\0\0"sv)                   // t s
                  + Word(5) + B("abcde\0\0\0"sv) + B("b5\0\0"sv)         // b s
                  + Word(0) + B("end\0"sv);                              // b s
    auto messages = Parse(bytes);
    ASSERT_EQ(messages.size(), 1u);
    std::vector<OSCArgument> expected = {int32_t(-2), int64_t(-0x7FFFFFFFFFFFFFFB),
                                         1.5f,        -2.5,
                                         "text"s,     "sym"s,
                                         true,        false,
                                         "c"s,        "r"s,
                                         "m"s,        "t"s,
                                         "b5"s,       "end"s};
    EXPECT_EQ(messages[0].arguments(), expected);
}

TEST(OSCMessageParse, DroppedAndSkippedTagsLeaveNoGap) {
    const Bytes address = B("/p\0\0"sv);
    auto messages = Parse(address + B(",iT\0"sv) + Word(3));
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].arguments(), (std::vector<OSCArgument>{int32_t(3), true}));

    messages = Parse(address + B(",N\0\0"sv));
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_TRUE(messages[0].arguments().empty());

    messages = Parse(address + B(",bi\0"sv) + Word(2) + B("xy\0\0"sv) + Word(9));
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].arguments(), std::vector<OSCArgument>{int32_t(9)});

    messages = Parse(address + B(",\0\0\0"sv)); // a tag string with no tag
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_TRUE(messages[0].arguments().empty());
}

TEST(OSCMessageParse, FixedSizeItemsMustBeWhole) {
    for (char tag : "ifcrmhdt"sv) {
        SCOPED_TRACE(std::string(1, tag));
        size_t width = std::string_view("hdt").find(tag) != std::string_view::npos ? 8 : 4;
        Bytes head = B("/n\0\0,"sv) + B(std::string(1, tag)) + B("\0\0"sv);
        Bytes data = Word(0x01020304) + Word(0x05060708);
        data.resize(width);
        EXPECT_TRUE(Accepts(head + data));
        data.pop_back();
        EXPECT_FALSE(Accepts(head + data));
    }
}

TEST(OSCMessageParse, BlobsAreRoundedUpAndMustFit) {
    const Bytes head = B("/b\0\0,b\0\0"sv);
    EXPECT_TRUE(Accepts(head + Word(0)));
    EXPECT_TRUE(Accepts(head + Word(5) + B("12345\0\0\0"sv)));
    EXPECT_FALSE(Accepts(head + Word(5) + B("12345\0\0"sv))); // rounding runs past the end
    EXPECT_FALSE(Accepts(head + Word(5) + B("12345"sv)));
    EXPECT_FALSE(Accepts(head + B("\0\0\0"sv))); // size word cut short
    // Sizes near 2^32 must not wrap around into something small.
    EXPECT_FALSE(Accepts(head + Word(0xFFFFFFFFu) + Word(0)));
    EXPECT_FALSE(Accepts(head + Word(0xFFFFFFFDu) + Word(0)));
    EXPECT_FALSE(Accepts(head + Word(0x80000000u) + Word(0)));
}

TEST(OSCMessageParse, UnknownTagsDropTheDatagram) {
    const Bytes address = B("/u\0\0"sv);
    EXPECT_FALSE(Accepts(address + B(",[i]\0\0\0\0"sv) + Word(1)));
    EXPECT_FALSE(Accepts(address + B(",ix\0"sv) + Word(1) + Word(2)));
    EXPECT_FALSE(Accepts(address + B(",i,\0"sv) + Word(1)));
}

TEST(OSCMessageParse, OnlyMessagesAndBundlesAreAccepted) {
    EXPECT_FALSE(Accepts({}));
    EXPECT_TRUE(Parse({}).empty());
    EXPECT_FALSE(Accepts(B("rec\0"sv)));
    EXPECT_FALSE(Accepts(B(",i\0\0"sv) + Word(1)));
}

TEST(OSCMessageParse, TextsMustBeStrictUTF8) {
    auto accepts = [](std::string_view text) {
        Bytes padded = B(text);
        padded.resize((padded.size() / 4 + 1) * 4, 0);
        bool asArgument = Accepts(B("/t\0\0,s\0\0"sv) + padded);
        EXPECT_EQ(Accepts(B("/") + padded + B("\0\0\0\0"sv)), asArgument) << "address and text disagree";
        return asArgument;
    };
    // The first and last code point of each sequence length, and both sides of the surrogates.
    for (std::string_view text :
         {"\x7F"sv, "\xC2\x80"sv, "\xDF\xBF"sv, "\xE0\xA0\x80"sv, "\xED\x9F\xBF"sv, "\xEE\x80\x80"sv,
          "\xEF\xBF\xBF"sv, "\xF0\x90\x80\x80"sv, "\xF4\x8F\xBF\xBF"sv})
        EXPECT_TRUE(accepts(text)) << testing::PrintToString(std::string(text));
    // Overlong forms, surrogates, code points past U+10FFFF, stray and missing continuation bytes.
    for (std::string_view text :
         {"\xC0\xAF"sv, "\xC1\xBF"sv, "\xE0\x9F\xBF"sv, "\xF0\x8F\xBF\xBF"sv, "\xED\xA0\x80"sv,
          "\xED\xBF\xBF"sv, "\xF4\x90\x80\x80"sv, "\xF5\x80\x80\x80"sv, "\xFF"sv, "\x80"sv, "\xE2\x82"sv,
          "a\xC3"sv, "\xE2\x28\xA1"sv, "\xF0\x90\x80\x28"sv})
        EXPECT_FALSE(accepts(text)) << testing::PrintToString(std::string(text));

    auto messages = Parse(B("/caf\xC3\xA9\0\0,s\0\0"sv) + B("\xE2\x82\xAC\xF0\x9D\x84\x9E\0"sv));
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].address(), "/caf\xC3\xA9");
    EXPECT_EQ(messages[0].arguments(), std::vector<OSCArgument>{"\xE2\x82\xAC\xF0\x9D\x84\x9E"s});
}

// --- Bundles ----------------------------------------------------------------------------------------

TEST(OSCMessageBundle, AHeaderAloneIsAnEmptyBundle) {
    ASSERT_EQ(BundleHeader.size(), 16u);
    EXPECT_TRUE(Accepts(BundleHeader));
    EXPECT_TRUE(Parse(BundleHeader).empty());
    for (size_t extra = 1; extra <= 3; ++extra) {
        SCOPED_TRACE(extra);
        EXPECT_FALSE(Accepts(BundleHeader + Bytes(extra, 0)));
    }
    EXPECT_FALSE(Accepts(Bytes(BundleHeader.begin(), BundleHeader.end() - 1)));
    EXPECT_FALSE(Accepts(B("#bundlX\0"sv) + Word(0) + Word(1)));
    EXPECT_FALSE(Accepts(B("#bundle!"sv) + Word(0) + Word(1)));
}

TEST(OSCMessageBundle, MessagesComeOutInOrderAcrossNestedBundles) {
    Bytes a = B("/a\0\0,i\0\0"sv) + Word(1);
    Bytes b = B("/b\0\0"sv);
    Bytes c = B("/c\0\0,s\0\0"sv) + B("x\0\0\0"sv);
    auto messages = Parse(Bundle({a, Bundle({b, BundleHeader}), c}));
    ASSERT_EQ(messages.size(), 3u);
    EXPECT_EQ(messages[0].description(), "/a 1");
    EXPECT_EQ(messages[1].description(), "/b ");
    EXPECT_EQ(messages[2].description(), "/c x");
}

TEST(OSCMessageBundle, ElementSizesAreExactAndNeedNotBeMultiplesOfFour) {
    Bytes a = B("/a\0\0,i\0\0"sv) + Word(1);
    // An element of 13 bytes: its message ignores the stray byte, and the next size word follows it
    // directly, unaligned.
    Bytes odd = Bundle({a + B("!"), B("/b\0\0"sv)});
    auto messages = Parse(odd);
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[1].address(), "/b");

    // A size one larger than what follows, or one smaller than the message needs.
    Bytes tooLarge = BundleHeader + Word(uint32_t(a.size() + 1)) + a;
    EXPECT_FALSE(Accepts(tooLarge));
    Bytes tooSmall = BundleHeader + Word(uint32_t(a.size() - 1)) + a;
    EXPECT_FALSE(Accepts(tooSmall));
    EXPECT_FALSE(Accepts(BundleHeader + Word(0xFFFFFFFFu) + a));
    EXPECT_FALSE(Accepts(BundleHeader + Word(0) + a)); // an empty element is no packet
    EXPECT_FALSE(Accepts(BundleHeader + Word(0)));
}

TEST(OSCMessageBundle, BytesLeftAfterTheLastElementRejectIt) {
    Bytes bundle = Bundle({Rec});
    EXPECT_TRUE(Accepts(bundle));
    for (size_t extra = 1; extra <= 3; ++extra) {
        SCOPED_TRACE(extra);
        EXPECT_FALSE(Accepts(bundle + Bytes(extra, 0)));
    }
    // Four stray bytes read as a size word whose element is missing.
    EXPECT_FALSE(Accepts(bundle + Word(0)));
    EXPECT_FALSE(Accepts(bundle + Word(1)));
}

TEST(OSCMessageBundle, OneBadElementDropsEveryMessage) {
    Bytes good = B("/good\0\0\0"sv);
    Bytes bad = B("/bad\0\0\0\0,q\0\0"sv);
    std::vector<OSCMessage> partial;
    Bytes bundle = Bundle({good, bad});
    EXPECT_FALSE(OSCMessage::readPacket(bundle.data(), bundle.size(), 0, partial));
    EXPECT_EQ(partial.size(), 1u) << "the parser itself reads up to the fault";
    EXPECT_TRUE(Parse(bundle).empty()) << "but no message of the datagram is handed on";
    EXPECT_TRUE(Parse(Bundle({good, Bundle({good, bad})})).empty());
}

TEST(OSCMessageBundle, NestingStopsAtSixteenLevels) {
    auto nested = [](int levels) {
        Bytes bytes = Rec;
        for (int i = 0; i < levels; ++i)
            bytes = Bundle({bytes});
        return bytes;
    };
    EXPECT_EQ(Parse(nested(16)).size(), 1u);
    EXPECT_FALSE(Accepts(nested(17)));
    EXPECT_TRUE(Parse(nested(17)).empty());
    EXPECT_FALSE(Accepts(nested(400))); // far deeper than any stack should go

    std::vector<OSCMessage> into;
    EXPECT_TRUE(OSCMessage::readBundle(BundleHeader.data(), BundleHeader.size(), 15, into));
    EXPECT_FALSE(OSCMessage::readBundle(BundleHeader.data(), BundleHeader.size(), 16, into));
}

// --- Encoding ---------------------------------------------------------------------------------------

TEST(OSCMessageEncode, MixedArgumentsGiveTheWireBytes) {
    OSCMessage message("/x", {1.5, int64_t(2), "a"s});
    Bytes expected = B("/x\0\0,fis\0\0\0\0"sv) + Word(0x3FC00000u) + Word(2) + B("a\0\0\0"sv);
    EXPECT_EQ(message.packet(), expected);
    EXPECT_EQ(expected.size(), 24u);
}

TEST(OSCMessageEncode, TextsAlwaysEndInOneToFourNuls) {
    EXPECT_EQ(OSCMessage("/rec").packet(), B("/rec\0\0\0\0,\0\0\0"sv));
    EXPECT_EQ(OSCMessage("/ab", {""s, "xyz"s, "wxyz"s}).packet(),
              B("/ab\0,sss\0\0\0\0"sv) + B("\0\0\0\0"sv) + B("xyz\0"sv) + B("wxyz\0\0\0\0"sv));
}

TEST(OSCMessageEncode, IntegersAndBooleansGoAsInt32FloatsAsFloat32) {
    OSCMessage message("/n", {int32_t(-1), int64_t(0x1'2345'6789), true, false, 0.1f, 1e300, -0.0});
    Bytes expected = B("/n\0\0,iiiifff\0\0\0\0"sv) + Word(0xFFFFFFFFu) + Word(0x23456789u) + Word(1) +
                     Word(0) + Word(0x3DCCCCCDu) + Word(0x7F800000u) + Word(0x80000000u);
    EXPECT_EQ(message.packet(), expected);
}

TEST(OSCMessageEncode, WhatTheParserKeepsSurvivesARoundTrip) {
    OSCMessage message("/layout/gap", {"grid"s, int32_t(-7), 0.25f, "é"s, std::numeric_limits<float>::max()});
    auto messages = Parse(message.packet());
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0], message);
}

// --- Description ------------------------------------------------------------------------------------

TEST(OSCMessageDescription, AddressThenEachArgumentAfterABlank) {
    EXPECT_EQ(OSCMessage("/x", {1.5, int32_t(2), "a"s}).description(), "/x 1.5 2 a");
    EXPECT_EQ(OSCMessage("/rec").description(), "/rec ");
    EXPECT_EQ(OSCMessage("/b", {true, false}).description(), "/b 1 0");
    EXPECT_EQ(OSCMessage("/n", {int64_t(-9'000'000'000), 0.1f, 0.1, 100.0f, "two words"s}).description(),
              "/n -9000000000 0.1 0.1 100 two words");
}

} // namespace
} // namespace quorva
