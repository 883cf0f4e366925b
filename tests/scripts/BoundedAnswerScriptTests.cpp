#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <stdexcept>
#include <string>

#include "scripts/PageScriptTest.h"

namespace brindle::test {
namespace {

/// What every composed script does with what the page puts in the place of its result.
class BoundedAnswer : public PageScriptTest {
  protected:
    void SetUp() override { show("<canvas></canvas>"); }

    /// The page answers with the value of an expression.
    static void answerWith(const std::string& expression) {
        inPage("HTMLCanvasElement.prototype.toDataURL = () => (" + expression + ");");
    }
    static void throwing(const std::string& expression) {
        inPage("HTMLCanvasElement.prototype.toDataURL = () => { throw (" + expression + "); };");
    }
    static std::optional<std::string> run() { return page().evaluate(std::string(page_script::qr_code)); }
    static std::string failure() {
        try {
            run();
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "none";
    }
};

TEST_F(BoundedAnswer, TextOfSixteenMebibytesIsTheLongest) {
    answerWith("'x'.repeat(16 * 1024 * 1024)");
    EXPECT_EQ(run().value().size(), std::size_t{16} << 20U);
    answerWith("'x'.repeat(16 * 1024 * 1024 + 1)");
    EXPECT_THAT(failure(), testing::HasSubstr("The page's answer is too long."));
}

TEST_F(BoundedAnswer, WhatIsNoTextStaysInThePage) {
    for (const char* answer : {"5", "({})", "[1]", "new Uint8Array(1000)", "new String('x')", "undefined",
                               "null", "document", "Symbol('x')", "() => 1"}) {
        answerWith(answer);
        EXPECT_EQ(run(), std::nullopt) << answer;
    }
}

TEST_F(BoundedAnswer, ReasonOfAFailureArrivesAsItIs) {
    throwing("new TypeError('out of ink')");
    EXPECT_THAT(failure(), testing::HasSubstr("TypeError: out of ink"));
    throwing("'just words'");
    EXPECT_THAT(failure(), testing::HasSubstr("just words"));
}

TEST_F(BoundedAnswer, LongReasonStaysInThePage) {
    for (const char* thrown :
         {"'x'.repeat(2001)", "new Error('x'.repeat(100000))", "{ toString: () => 'x'.repeat(100000) }"}) {
        throwing(thrown);
        EXPECT_THAT(failure(), testing::HasSubstr("The page threw a text that is too long.")) << thrown;
    }
}

TEST_F(BoundedAnswer, ReasonThatChangesIsAskedForOnce) {
    throwing(
        "{ asked: 0, toString() { this.asked += 1; return this.asked > 1 ? 'x'.repeat(100000) : 'short'; } }");
    EXPECT_THAT(failure(), testing::HasSubstr("short"));
}

TEST_F(BoundedAnswer, WhatIsNoTextIsNoReason) {
    for (const char* thrown : {"Symbol('x')", "Object.create(null)", "{ toString() { throw 1; } }",
                               "new Proxy({}, { get() { throw 2; } })"}) {
        throwing(thrown);
        EXPECT_THAT(failure(), testing::HasSubstr("The page threw what is no text.")) << thrown;
    }
}

TEST_F(BoundedAnswer, LengthIsNotThePagesToTell) {
    inPage("Object.prototype.__defineGetter__('longestAnswer', () => 1e99); window.longestAnswer = 1e99;");
    answerWith("'x'.repeat(16 * 1024 * 1024 + 1)");
    EXPECT_THAT(failure(), testing::HasSubstr("The page's answer is too long."));
}

}  // namespace
}  // namespace brindle::test
