#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "support/BackendLines.h"
#include "support/BackendProcess.h"
#include "support/ExitStatus.h"
#include "support/Files.h"
#include "support/Json.h"
#include "support/Replies.h"
#include "support/Requests.h"
#include "support/Sanitizers.h"
#include "support/Units.h"

namespace brindle::test {
namespace {

using Lines = std::vector<std::string>;

constexpr std::size_t large_bytes = 64 * mebibyte;
/// What a backend may keep of the memory that a large line took.
constexpr std::size_t kept_memory_bytes = 16 * mebibyte;

std::string repeated(std::string_view text, std::size_t count) {
    std::string result;
    result.reserve(text.size() * count);
    for (std::size_t index = 0; index < count; ++index) result += text;
    return result;
}

std::string selfTestLine(const std::string& title) {
    return startListeningRequest(testOnlyScope(title)).dump();
}

/// A connect request with this text as the value of a member that the backend does not know.
std::string withUnknownValue(std::string_view value) {
    return R"({"connect":{"_0":{"platform":"whatsapp"}},"note":)" + std::string(value) + "}";
}

/// A connect request with an unknown member deep inside its payload.
std::string withInnerUnknownValue(std::string_view value) {
    return R"({"connect":{"_0":{"note":{"inner":[1,)" + std::string(value) + R"(]},"platform":"whatsapp"}}})";
}

void expectConnected(std::string_view line) {
    EXPECT_EQ(repliesToLine(line), (Lines{connecting_line, connected_line}));
}

/// Texts with zero bytes inside would end early as plain literals.
template <std::size_t size>
constexpr std::string_view bytes(const char (&literal)[size]) {
    return {literal, size - 1};
}

// Lines that are no JSON document.

class BadInputLine : public testing::TestWithParam<std::string_view> {};

TEST_P(BadInputLine, IsOneError) {
    expectOneError(GetParam());
}

INSTANTIATE_TEST_SUITE_P(
    NotJson, BadInputLine,
    testing::Values(
        "{", "}", "[", "]", "{]", ",", ":", "\"", "'", "garbage", "nul", "True", "{\"connect\"",
        "{\"connect\":", "{\"connect\":{\"_0\":{\"platform\":\"whatsapp\"}}",
        "{\"connect\":{\"_0\":{\"platform\":\"whatsapp\"}}}}",
        "{\"connect\":{\"_0\":{\"platform\":\"whatsapp\"}}},",
        "{\"connect\":{\"_0\":{\"platform\":\"whatsapp\"}}} x",
        "x {\"connect\":{\"_0\":{\"platform\":\"whatsapp\"}}}",
        "{\"connect\":{\"_0\":{\"platform\":\"whatsapp\"}}}{}",
        "{\"connect\":{\"_0\":{\"platform\":\"whatsapp\"}}} {\"connect\":{\"_0\":{\"platform\":\"whatsapp\"}}}",
        "{\"connect\":{\"_0\":{\"platform\":\"whatsapp\"}}}1",
        "{\"connect\":{\"_0\":{\"platform\":\"whatsapp\"}},}",
        "{\"connect\":{\"_0\":{\"platform\":\"whatsapp\",}}}",
        "{,\"connect\":{\"_0\":{\"platform\":\"whatsapp\"}}}",
        "{\"connect\" {\"_0\":{\"platform\":\"whatsapp\"}}}",
        "{\"connect\":{\"_0\":{\"platform\" \"whatsapp\"}}}",
        "{connect:{\"_0\":{\"platform\":\"whatsapp\"}}}", "{'connect':{'_0':{'platform':'whatsapp'}}}",
        "{\"connect\":{\"_0\":{\"platform\":\"whatsapp}}}",
        "{\"connect\":{\"_0\":{\"platform\":\"whats\tapp\"}}}",
        "{\"connect\":{\"_0\":{\"platform\":\"\\x77hatsapp\"}}}",
        "{\"connect\":{\"_0\":{\"platform\":\"\\u00zz\"}}}",
        "{\"connect\":{\"_0\":{\"platform\":\"\\u12\"}}}", "{\"connect\":{\"_0\":{\"platform\":\"\\\"}}}",
        "/* note */{\"connect\":{\"_0\":{\"platform\":\"whatsapp\"}}}",
        "{\"connect\":{\"_0\":{\"platform\":\"whatsapp\"}}}// note", "<connect platform=\"whatsapp\"/>",
        "GET / HTTP/1.1", "\\u007b\\u007d", bytes("\0"), bytes("{}\0"),
        bytes("\0{\"connect\":{\"_0\":{\"platform\":\"whatsapp\"}}}"),
        bytes("{\"connect\":{\"_0\":{\"platform\":\"whatsapp\"}}}\0"),
        bytes("{\"connect\":{\"_0\":{\"platform\":\"whats\0app\"}}}"), "\x01\x02\x03", "\x7f"));

// Values that are no JSON, wherever they stand.

class BadInputValue : public testing::TestWithParam<std::string_view> {};

TEST_P(BadInputValue, AsTheWholeLineIsOneError) {
    expectOneError(GetParam());
}

TEST_P(BadInputValue, InPlaceOfAFieldIsOneError) {
    expectOneError(R"({"connect":{"_0":{"platform":)" + std::string(GetParam()) + "}}}");
}

TEST_P(BadInputValue, InAnUnknownMemberIsOneError) {
    expectOneError(withUnknownValue(GetParam()));
}

TEST_P(BadInputValue, DeepInAnUnknownMemberIsOneError) {
    expectOneError(withInnerUnknownValue(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(NotJson, BadInputValue,
                         testing::Values("+1", ".5", "5.", "-", "--1", "-.5", "01", "-01", "00", "1e", "1e+",
                                         "1E-", "1.e5", "1.2.3", "0x10", "1_000", "1,5e", "NaN", "-NaN",
                                         "Infinity", "-Infinity", "inf", "undefined", "True", "FALSE", "None",
                                         "nulls", "truefalse", "[1,]", "[,1]", "[1 2]", "{\"a\":1,}",
                                         "{\"a\"}", "{\"a\":}", "{a:1}", "{1:1}", "[", "[1", "(1)", "'x'",
                                         "\"x", "\"\\x41\"", "\"\\u12g4\"", "\"\\u\"", "\"\\'\"", "\"a\tb\"",
                                         "\"a\x01z\"", "\"a\x1f\"", "1 2", "{} {}", "1x", "1e999x", "1\"a\"",
                                         "1e999\"a\"", "-a", "\"\\"));

// Text that is not UTF-8 or stands for no text.

class BadInputText : public testing::TestWithParam<std::string_view> {};

TEST_P(BadInputText, InAFieldIsOneError) {
    expectOneError(R"({"startListening":{"_0":{"platform":"whatsapp","scope":{"testOnly":{"title":"a)" +
                   std::string(GetParam()) + R"("}}}}})");
}

TEST_P(BadInputText, InTheRequestForAnotherPlatformIsOneError) {
    expectOneError(R"({"connect":{"_0":{"platform":")" + std::string(GetParam()) + R"("}}})");
}

TEST_P(BadInputText, InAnUnknownMemberIsOneError) {
    expectOneError(withUnknownValue("\"" + std::string(GetParam()) + "\""));
}

TEST_P(BadInputText, InAnUnknownNameIsOneError) {
    expectOneError(R"({"connect":{"_0":{"platform":"whatsapp"}},")" + std::string(GetParam()) + R"(":1})");
}

TEST_P(BadInputText, AsTheWholeLineIsOneError) {
    expectOneError(GetParam());
}

INSTANTIATE_TEST_SUITE_P(NotUtf8, BadInputText,
                         testing::Values("\xff", "\xfe", "\x80", "\xbf", "\xc3", "\xc3z", "\xc0\x80",
                                         "\xc1\xbf", "\xe2\x82", "\xe0\x80\x80", "\xe0\x9f\xbf",
                                         "\xed\xa0\x80", "\xed\xbf\xbf", "\xed\xa0\xbd\xed\xb8\x80",
                                         "\xf0\x80\x80\x80", "\xf0\x9f\x98", "\xf4\x90\x80\x80",
                                         "\xf5\x80\x80\x80", "\xf8\x88\x80\x80\x80", "\xe4\xf6\xfc"));

INSTANTIATE_TEST_SUITE_P(LoneSurrogate, BadInputText,
                         testing::Values(R"(\ud800)", R"(\udbff)", R"(\udc00)", R"(\udfff)", R"(\ud800x)",
                                         R"(\ud83d\n)", R"(\ud83d\ud83d)", R"(\ude00\ud83d)",
                                         R"(\uD83D\u0041)", R"(x\uDE00)"));

// Valid JSON that a backend need not understand.

class UnusualInputValue : public testing::TestWithParam<std::string_view> {};

TEST_P(UnusualInputValue, InAnUnknownMemberIsAccepted) {
    expectConnected(withUnknownValue(GetParam()));
}

TEST_P(UnusualInputValue, DeepInAnUnknownMemberIsAccepted) {
    expectConnected(withInnerUnknownValue(GetParam()));
}

TEST_P(UnusualInputValue, InPlaceOfAFieldIsOneError) {
    expectOneError(R"({"connect":{"_0":{"platform":)" + std::string(GetParam()) + "}}}");
}

INSTANTIATE_TEST_SUITE_P(Values, UnusualInputValue,
                         testing::Values("1e999", "-1e999", "1E+400", "1e-999", "0e999999999999",
                                         "1e99999999999999999999",
                                         "123456789012345678901234567890123456789012345678901234567890",
                                         "-123456789012345678901234567890123456789012345678901234567890",
                                         "9223372036854775807", "9223372036854775808", "-9223372036854775808",
                                         "-9223372036854775809", "18446744073709551615",
                                         "18446744073709551616", "-0", "-0.0", "0.0000000000000000000000001",
                                         "3.14159265358979323846264338327950288419716939937510582097494459",
                                         "179769313486231580793728971405301e277", "[]", "{}", "[[],{},[[]]]",
                                         "{\"\":{\"\":\"\"}}", "{\"a\":1,\"a\":2}", "[null,true,false]",
                                         "{\"\\u0000\":0}"));

INSTANTIATE_TEST_SUITE_P(
    Lengths, UnusualInputValue,
    testing::Values("1e0000000000000000000000000000000000000000000000000000000000000001"));

TEST(UnusualInput, HugeNumberDoesNotHideTheErrorBehindIt) {
    expectOneError(R"({"note":1e999,"connect":{"_0":{"platform":"whatsapp"}},})");
    expectOneError(R"({"note":123456789012345678901234567890,"connect":{"_0":{}}})");
    expectOneError(R"({"note":[1e999,+1],"connect":{"_0":{"platform":"whatsapp"}}})");
}

TEST(UnusualInput, HugeNumberInsideATextIsText) {
    BackendProcess process;
    process.greet();
    process.send(R"({"startListening":{"_0":{"note":1e999,"platform":"whatsapp",)"
                 R"("scope":{"testOnly":{"title":"1e999, 123456789012345678901234567890 \" 1e999"}}}}})");
    EXPECT_EQ(selfTestTitleOf(process.nextLine()), R"(1e999, 123456789012345678901234567890 " 1e999)");
}

TEST(UnusualInput, ManyHugeNumbersAreAccepted) {
    expectConnected(withUnknownValue("[" + repeated("1e999,", 20000) + "0]"));
}

TEST(UnusualInput, NumberOfAMillionDigitsIsAccepted) {
    expectConnected(withUnknownValue(std::string(1000000, '1')));
}

TEST(UnusualInput, ModerateNestingIsAccepted) {
    expectConnected(withUnknownValue(repeated("[", 200) + repeated("]", 200)));
}

TEST(UnusualInput, ZeroCharacterInATextIsKept) {
    BackendProcess process;
    process.greet();
    process.send(
        R"({"startListening":{"_0":{"platform":"whatsapp","scope":{"testOnly":{"title":"a\u0000b"}}}}})");
    const auto line = process.nextLine();
    EXPECT_NE(line.find(R"("conversationTitle":"a\u0000b")"), std::string::npos) << line;
    EXPECT_EQ(selfTestTitleOf(line), std::string(bytes("a\0b")));
}

TEST(UnusualInput, ZeroCharacterInAMessageIsKept) {
    BackendProcess process;
    process.greet();
    process.send(
        R"({"sendMessage":{"_0":{"platform":"whatsapp","message":{"conversationId":"\u0000","text":"a\u0000\u0000b"}}}})");
    EXPECT_EQ(process.finishAndTakeRest(), Lines{});
    const auto record = process.readJson("outbound/" + process.waitForEntries("outbound", 1).front());
    EXPECT_EQ(record["text"], std::string(bytes("a\0\0b")));
    EXPECT_EQ(record["conversationId"], std::string(bytes("\0")));
}

TEST(UnusualInput, ZeroCharacterMakesAnotherPlatform) {
    EXPECT_EQ(repliesToLine(R"({"connect":{"_0":{"platform":"whatsapp\u0000"}}})"), Lines{});
}

TEST(UnusualInput, ZeroCharacterMakesAnotherName) {
    expectOneError(R"({"connect\u0000":{"_0":{"platform":"whatsapp"}}})");
}

TEST(UnusualInput, SurrogatePairIsOneCharacter) {
    BackendProcess process;
    process.greet();
    process.send(
        R"({"startListening":{"_0":{"platform":"whatsapp","scope":{"testOnly":{"title":"\ud83d\uDE00"}}}}})");
    EXPECT_NE(process.nextLine().find("\"\U0001f600\""), std::string::npos);
}

TEST(UnusualInput, NoncharactersArePartOfATextLikeOthers) {
    const std::string title = "\ufffe\uffff\ufdd0\U0010ffff\U0001fffe\ufeff";
    BackendProcess process;
    process.greet();
    process.send(selfTestLine(title));
    EXPECT_EQ(selfTestTitleOf(process.nextLine()), title);
}

// Nesting.

class BadInputNesting : public testing::TestWithParam<std::string_view> {};

TEST_P(BadInputNesting, OpenedAndClosedIsOneError) {
    const std::string_view opening = GetParam();
    const std::string_view closing = opening == "[" ? "]" : "}";
    const auto value = repeated(opening, 100000) + (opening == "[" ? "" : "0") + repeated(closing, 100000);
    expectOneError(value);
    expectOneError(withUnknownValue(value));
}

TEST_P(BadInputNesting, OnlyOpenedIsOneError) {
    expectOneError(repeated(GetParam(), 1000000));
    expectOneError(withUnknownValue(repeated(GetParam(), 1000000)));
}

INSTANTIATE_TEST_SUITE_P(Brackets, BadInputNesting, testing::Values("[", R"({"a":)", R"([{"a":)"));

// Many bad lines.

TEST(BadInput, TenThousandGarbageLinesAreOneErrorEachInOrder) {
    constexpr int line_count = 10000;
    constexpr int lines_a_marker = 1000;
    constexpr std::array<std::string_view, 8> garbage = {
        "{", "}", "\xff\xfe", "null", "{}", "garbage", R"({"connect":{"_0":{}}})", "[[[["};
    BackendProcess process;
    process.greet();
    std::string input;
    for (int number = 0; number < line_count; ++number) {
        input += garbage[static_cast<std::size_t>(number) % garbage.size()];
        input += '\n';
        if ((number + 1) % lines_a_marker == 0) input += selfTestLine(std::to_string(number + 1)) + "\n";
    }
    process.sendRaw(input);
    const auto replies = process.finishAndTakeRest();
    ASSERT_EQ(replies.size(), std::size_t{line_count} + line_count / lines_a_marker);
    std::size_t place = 0;
    for (int number = 1; number <= line_count; ++number) {
        ASSERT_NO_THROW(errorMessageOf(replies[place])) << "line " << number << ": " << replies[place];
        ++place;
        if (number % lines_a_marker == 0) {
            EXPECT_EQ(selfTestTitleOf(replies[place]), std::to_string(number));
            ++place;
        }
    }
    EXPECT_EQ(process.waitForExit(), exitedWith(0));
}

TEST(BadInput, GarbageBetweenRequestsDoesNotDisturbThem) {
    BackendProcess process;
    process.greet();
    for (int number = 0; number < 100; ++number) {
        process.send("garbage " + std::to_string(number));
        process.send(connectRequest());
    }
    const auto replies = process.finishAndTakeRest();
    ASSERT_EQ(replies.size(), 300U);
    for (std::size_t place = 0; place < replies.size(); place += 3) {
        EXPECT_NO_THROW(errorMessageOf(replies[place]));
        EXPECT_EQ(replies[place + 1], connecting_line);
        EXPECT_EQ(replies[place + 2], connected_line);
    }
}

TEST(BadInput, EveryByteValueAloneOnALineIsAtMostOneError) {
    BackendProcess process;
    process.greet();
    std::size_t expected = 0;
    for (int value = 0; value < 256; ++value) {
        const auto byte = static_cast<char>(value);
        if (byte == '\n') continue;
        process.sendRaw(std::string{byte, '\n'});
        const bool isWhiteSpace = std::string_view(" \t\r\v\f").find(byte) != std::string_view::npos;
        if (!isWhiteSpace) ++expected;
    }
    process.send(connectRequest());
    const auto replies = process.finishAndTakeRest();
    ASSERT_EQ(replies.size(), expected + 2);
    for (std::size_t place = 0; place < expected; ++place) EXPECT_NO_THROW(errorMessageOf(replies[place]));
}

// Large lines.

/// Base64 text in which a lost, doubled or moved piece shows.
std::string largeBase64(std::size_t size) {
    constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text(size, '\0');
    std::size_t state = 12345;
    for (auto& character : text) {
        state = state * 6364136223846793005U + 1442695040888963407U;
        character = alphabet[state >> 58U];
    }
    return text;
}

std::string attachmentLine(const std::string& data) {
    return R"({"sendMessage":{"_0":{"message":{"attachments":[{"dataBase64":")" + data +
           R"(","fileName":"film.mp4","kind":"video","mimeType":"video\/mp4"}],)"
           R"("conversationId":"team-room","text":"see"},"platform":"whatsapp"}}})";
}

void expectMemoryGivenBack(const BackendProcess& process, std::size_t before) {
    process.waitUntil([&] { return process.residentBytes() < before + kept_memory_bytes; },
                      "the memory of the large line to be given back");
}

TEST(LargeInput, AttachmentOf64MebibytesArrivesIntact) {
    if (sanitizerOfExecutables() == Sanitizer::thread) GTEST_SKIP() << large_messages_take_long;
    const auto data = largeBase64(large_bytes);
    BackendProcess process;
    process.greet();
    process.send(attachmentLine(data));
    const auto name = process.waitForEntries("outbound", 1).front();
    EXPECT_EQ(process.finishAndTakeRest(), Lines{});
    const auto record = process.readJson("outbound/" + name);
    const auto& attachment = record["attachments"][0];
    EXPECT_EQ(attachment["fileName"], "film.mp4");
    EXPECT_EQ(attachment["mimeType"], "video/mp4");
    EXPECT_TRUE(attachment["dataBase64"] == data) << "the attachment's data changed on the way";
}

TEST(LargeInput, SlashesOfTheAttachmentAreEscapedInTheFile) {
    BackendProcess process;
    process.greet();
    process.send(attachmentLine(repeated("ab/+", 1000)));
    const auto name = process.waitForEntries("outbound", 1).front();
    const auto content = readFile(process.path("outbound/" + name));
    EXPECT_NE(content.find(R"(ab\/+ab\/+)"), std::string::npos);
}

TEST(LargeInput, MemoryOfALargeAttachmentIsGivenBack) {
    if (sanitizerOfExecutables() != Sanitizer::none) GTEST_SKIP() << memory_is_kept;
    BackendProcess process;
    process.greet();
    const auto before = process.residentBytes();
    process.send(attachmentLine(largeBase64(large_bytes)));
    process.waitForEntries("outbound", 1);
    process.send(connectRequest());
    EXPECT_EQ(process.nextLine(), connecting_line);
    EXPECT_EQ(process.nextLine(), connected_line);
    expectMemoryGivenBack(process, before);
}

TEST(LargeInput, MemoryOfALargeBrokenLineIsGivenBack) {
    if (sanitizerOfExecutables() != Sanitizer::none) GTEST_SKIP() << memory_is_kept;
    BackendProcess process;
    process.greet();
    const auto before = process.residentBytes();
    process.send(repeated("garbage ", large_bytes / 8));
    errorMessageOf(process.nextLine());
    expectMemoryGivenBack(process, before);
}

TEST(LargeInput, MemoryOfALineOfManyTokensIsGivenBack) {
    if (sanitizerOfExecutables() != Sanitizer::none) GTEST_SKIP() << memory_is_kept;
    BackendProcess process;
    process.greet();
    const auto before = process.residentBytes();
    process.send(withUnknownValue("[" + repeated("[],", 4 * mebibyte) + "0]"));
    EXPECT_EQ(process.nextLine(), connecting_line);
    EXPECT_EQ(process.nextLine(), connected_line);
    expectMemoryGivenBack(process, before);
}

TEST(LargeInput, MemoryDoesNotGrowFromLargeLineToLargeLine) {
    if (sanitizerOfExecutables() != Sanitizer::none) GTEST_SKIP() << memory_is_kept;
    BackendProcess process;
    process.greet();
    const auto before = process.residentBytes();
    for (int count = 0; count < 4; ++count) {
        process.send(std::string(large_bytes / 4, 'x'));
        errorMessageOf(process.nextLine());
    }
    expectMemoryGivenBack(process, before);
}

TEST(LargeInput, BrokenLineOf64MebibytesIsOneShortError) {
    BackendProcess process;
    process.greet();
    process.send(std::string(large_bytes, 'x'));
    const auto line = process.nextLine();
    EXPECT_NO_THROW(errorMessageOf(line));
    EXPECT_LT(line.size(), 1000U);
    process.send(connectRequest());
    EXPECT_EQ(process.finishAndTakeRest(), (Lines{connecting_line, connected_line}));
}

TEST(LargeInput, UnterminatedLineOf64MebibytesIsOneErrorAndTheEnd) {
    BackendProcess process;
    process.greet();
    process.sendRaw(std::string(large_bytes, 'x'));
    const auto replies = process.finishAndTakeRest();
    ASSERT_EQ(replies.size(), 1U);
    EXPECT_NO_THROW(errorMessageOf(replies.front()));
    EXPECT_EQ(process.waitForExit(), exitedWith(0));
}

TEST(LargeInput, UnterminatedMessageOf64MebibytesIsRecorded) {
    if (sanitizerOfExecutables() == Sanitizer::thread) GTEST_SKIP() << large_messages_take_long;
    const auto data = largeBase64(large_bytes);
    BackendProcess process;
    process.greet();
    process.sendRaw(attachmentLine(data));
    EXPECT_EQ(process.finishAndTakeRest(), Lines{});
    const auto record = process.readJson("outbound/" + process.waitForEntries("outbound", 1).front());
    EXPECT_TRUE(record["attachments"][0]["dataBase64"] == data) << "the attachment's data changed on the way";
}

TEST(LargeInput, BlankLineOf64MebibytesYieldsNothing) {
    BackendProcess process;
    process.greet();
    process.send(std::string(large_bytes, ' '));
    process.send(connectRequest());
    EXPECT_EQ(process.finishAndTakeRest(), (Lines{connecting_line, connected_line}));
}

/// Beside the names in a document; what people write stays out of the parent's log.
TEST(LargeInput, ErrorsRepeatNoValueOfTheInput) {
    BackendProcess process;
    process.greet();
    process.send(R"({"connect":{"_0":{"platform":7,"note":"tell-tale text"}}})");
    process.send(R"({"tell-tale text":)");
    process.send(
        R"({"startListening":{"_0":{"platform":"whatsapp","scope":{"club":{"id":"tell-tale text"}}}}})");
    process.send(
        R"({"sendMessage":{"_0":{"platform":"whatsapp","message":{"conversationId":[],"text":"tell-tale text"}}}})");
    for (const auto& reply : process.finishAndTakeRest()) {
        EXPECT_EQ(errorMessageOf(reply).find("tell-tale"), std::string::npos) << reply;
    }
    EXPECT_EQ(process.receivedLines().size(), 6U);
}

// A line about as long as a buffer may be: its end falls on and beside every boundary.

class LargeInputBoundary : public testing::TestWithParam<std::size_t> {};

TEST_P(LargeInputBoundary, LinesAroundItAreServed) {
    for (const std::size_t length : {GetParam() - 2, GetParam() - 1, GetParam(), GetParam() + 1}) {
        const auto request = connectRequest().dump();
        const auto filled = request + std::string(length - request.size(), ' ');
        BackendProcess process;
        process.greet();
        process.sendRaw(filled + "\n" + filled + "\n" + filled);
        EXPECT_EQ(process.finishAndTakeRest(), (Lines{connecting_line, connected_line, connecting_line,
                                                      connected_line, connecting_line, connected_line}))
            << length;
    }
}

INSTANTIATE_TEST_SUITE_P(Bytes, LargeInputBoundary,
                         testing::Values(64, 128, 1024, 4096, 8192, 16384, 32768, 65536, 131072, 262144,
                                         1048576, 2097152));

}  // namespace
}  // namespace brindle::test
