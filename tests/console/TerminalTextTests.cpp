#include "console/TerminalText.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "support/Json.h"

namespace brindle::console {
namespace {

/// The first and the last of every range that a terminal obeys or that turns the direction.
constexpr std::string_view obeyed =
    "\x01\x1B\x1F\x7F\u0080\u009B\u009F\u061C\u200E\u200F\u2028\u202A\u202E\u2066\u2069";
/// Their neighbours.
constexpr std::string_view harmless = " ~\u00A0\u061B\u061D\u200D\u2010\u2027\u202F\u2065\u206A é日🙂";

TEST(TerminalText, ShowsAQuestionMarkForWhatATerminalObeys) {
    EXPECT_EQ(terminalSafe(obeyed), std::string(15, '?'));
    EXPECT_EQ(terminalSafe(std::string_view("a\0b", 3)), "a?b");
}

TEST(TerminalText, KeepsEverythingElse) {
    EXPECT_EQ(terminalSafe(harmless), harmless);
    EXPECT_EQ(terminalSafeJson(harmless), harmless);
}

TEST(TerminalText, RepairsTextBeforeATerminalSeesItsBytes) {
    EXPECT_EQ(terminalSafe("a\x9B"
                           "2J\xC2"),
              "a\uFFFD"
              "2J\uFFFD");
    EXPECT_EQ(terminalSafeJson("\x9B"), "\uFFFD");
}

TEST(TerminalText, JSONMeansTheSameAsBefore) {
    const std::string text = "\u009B2J\u202Eabc\u2066\x7F/\u061C";
    const std::string document = "{\"text\":\"" + text + "\"}";
    const auto safe = terminalSafeJson(document);
    EXPECT_EQ(safe, R"({"text":"\u009b2J\u202eabc\u2066\u007f/\u061c"})");
    EXPECT_EQ(test::Json::parse(safe)["text"], text);
}

}  // namespace
}  // namespace brindle::console
