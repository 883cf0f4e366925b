#include "worker/PageScriptRunner.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "records/DecodingFailure.h"
#include "support/Json.h"
#include "support/WorkerParts.h"
#include "worker/PagePayloads.h"

namespace brindle {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

class PageScriptRunnerTests : public testing::Test {
  protected:
    Task<> runScript(std::string script) {
        try {
            const auto result = co_await parts_.scripts.evaluateJavaScriptStringAsync(std::move(script));
            log_.push_back(result ? "result: " + *result : "no result");
        } catch (const std::exception& error) {
            log_.push_back(std::string("failure: ") + error.what());
        }
    }

    test::WorkerParts parts_;
    std::vector<std::string> log_;
};

TEST_F(PageScriptRunnerTests, HandsTheScriptToThePageAsItIs) {
    auto task = runScript("1 + \"é\"");
    task.start();
    ASSERT_EQ(parts_.host.pending.size(), 1U);
    EXPECT_EQ(parts_.host.pending[0].script, "1 + \"é\"");
    EXPECT_FALSE(task.isDone());
}

TEST_F(PageScriptRunnerTests, AnswersTheString) {
    auto task = runScript("s");
    task.start();
    parts_.host.answerOnly(test::result("text"));
    EXPECT_THAT(log_, ElementsAre("result: text"));
}

TEST_F(PageScriptRunnerTests, EmptyStringIsAResult) {
    auto task = runScript("s");
    task.start();
    parts_.host.answerOnly(test::result(""));
    EXPECT_THAT(log_, ElementsAre("result: "));
}

TEST_F(PageScriptRunnerTests, WhatIsNoStringIsNoResult) {
    auto task = runScript("42");
    task.start();
    parts_.host.answerOnly(test::noResult());
    EXPECT_THAT(log_, ElementsAre("no result"));
}

TEST_F(PageScriptRunnerTests, FailedEvaluationFailsWithItsSentence) {
    auto task = runScript("s");
    task.start();
    parts_.host.answerOnly(test::failure("TypeError: x is not a function."));
    EXPECT_THAT(log_, ElementsAre("failure: TypeError: x is not a function."));
}

TEST_F(PageScriptRunnerTests, FailureCountsEvenWithAResult) {
    auto task = runScript("s");
    task.start();
    parts_.host.answerOnly({.value = "text", .error = "It failed."});
    EXPECT_THAT(log_, ElementsAre("failure: It failed."));
}

TEST_F(PageScriptRunnerTests, ScriptWithoutAnswerFailsAfterThirtySeconds) {
    auto task = runScript("s");
    task.start();
    parts_.host.advance(milliseconds(29'999));
    EXPECT_THAT(log_, IsEmpty());
    parts_.host.advance(milliseconds(1));
    EXPECT_THAT(log_, ElementsAre("failure: The page did not answer a script within 30 seconds."));
}

TEST_F(PageScriptRunnerTests, LaterAnswerIsIgnored) {
    auto task = runScript("s");
    task.start();
    parts_.host.advance(seconds(30));
    parts_.host.answerOnly(test::result("late"));
    EXPECT_EQ(log_.size(), 1U);
}

TEST_F(PageScriptRunnerTests, WhoeverWantsTheLaterAnswerGetsIt) {
    const auto patient = [](PageScriptRunner& scripts, std::string& answer) -> Task<> {
        std::optional<Answer<EvaluationOutcome>> later;
        try {
            std::string script = "s";
            co_await scripts.evaluateJavaScriptStringAsync(std::move(script));
        } catch (const LateAnswer& late) {
            later = late.answer();
        }
        if (later) answer = (co_await *later).value.value();
    };
    std::string answer;
    auto task = patient(parts_.scripts, answer);
    task.start();
    parts_.host.advance(seconds(3600));
    parts_.host.answerOnly(test::result("late"));
    EXPECT_EQ(answer, "late");
}

TEST_F(PageScriptRunnerTests, AnswerInTimeStopsTheLimit) {
    auto task = runScript("s");
    task.start();
    EXPECT_EQ(parts_.host.runningTimers(), 1U);
    parts_.host.answerOnly(test::result("text"));
    EXPECT_EQ(parts_.host.runningTimers(), 0U);
    parts_.host.advance(seconds(60));
    EXPECT_THAT(log_, ElementsAre("result: text"));
}

TEST_F(PageScriptRunnerTests, TaskThatIsGivenUpLeavesNothingBehind) {
    {
        auto task = runScript("s");
        task.start();
    }
    EXPECT_EQ(parts_.host.runningTimers(), 0U);
    parts_.host.answerOnly(test::result("late"));
    EXPECT_THAT(log_, IsEmpty());
}

TEST_F(PageScriptRunnerTests, ScriptsDoNotWaitForOneAnother) {
    auto first = runScript("1");
    auto second = runScript("2");
    first.start();
    second.start();
    parts_.host.answer(1, test::result("two"));
    parts_.host.answer(0, test::result("one"));
    EXPECT_THAT(log_, ElementsAre("result: two", "result: one"));
}

struct TitleCase {
    std::string title;
    std::string literal;
};

class WatchedTitleTests : public testing::TestWithParam<TitleCase> {};

TEST_P(WatchedTitleTests, BecomesOneStringLiteral) {
    const auto& [title, literal] = GetParam();
    EXPECT_EQ(scriptWithWatchedTitle("const t = __WATCHED_TITLE__;\nreturn t;", title),
              "const t = " + literal + ";\nreturn t;");
    EXPECT_EQ(test::Json::parse(literal), title);
}

INSTANTIATE_TEST_SUITE_P(
    Titles, WatchedTitleTests,
    testing::Values(TitleCase{"Family", R"("Family")"}, TitleCase{"", R"("")"},
                    TitleCase{R"(say "hi")", R"("say \"hi\"")"},
                    TitleCase{R"(back\slash\)", R"("back\\slash\\")"}, TitleCase{"a/b", R"("a\/b")"},
                    TitleCase{"</script>", R"("<\/script>")"}, TitleCase{"one\ntwo\r\t", R"("one\ntwo\r\t")"},
                    TitleCase{std::string("nul\0\x1f", 5), R"("nul\u0000\u001f")"},
                    TitleCase{"line\u2028paragraph\u2029", "\"line\u2028paragraph\u2029\""},
                    TitleCase{"__WATCHED_TITLE__", R"("__WATCHED_TITLE__")"},
                    TitleCase{"\"; alert(1); \"", R"("\"; alert(1); \"")"},
                    TitleCase{"${x} `y` 'z'", R"("${x} `y` 'z'")"},
                    TitleCase{"../../etc/passwd", R"("..\/..\/etc\/passwd")"},
                    TitleCase{"Zoë 日本 🙂", "\"Zoë 日本 🙂\""},
                    TitleCase{"$& $1 %s \\1", R"("$& $1 %s \\1")"}));

TEST(WatchedTitlePlaceholderTests, EveryOccurrenceIsReplacedOnce) {
    EXPECT_EQ(
        scriptWithWatchedTitle("__WATCHED_TITLE__ __WATCHED_TITLE____WATCHED_TITLE__", "__WATCHED_TITLE__x"),
        R"("__WATCHED_TITLE__x" "__WATCHED_TITLE__x""__WATCHED_TITLE__x")");
}

TEST(WatchedTitlePlaceholderTests, OnlyThePlaceholderItselfIsReplaced) {
    const std::string script = "__watched_title__ _WATCHED_TITLE_ WATCHED_TITLE";
    EXPECT_EQ(scriptWithWatchedTitle(script, "T"), script);
    EXPECT_EQ(scriptWithWatchedTitle("", "T"), "");
}

TEST(WatchedTitlePlaceholderTests, ScriptsThatNeedATitleHoldThePlaceholderOnce) {
    for (const auto script : {page_script::chat_activation, page_script::inbound_capture}) {
        const auto found = script.find("__WATCHED_TITLE__");
        ASSERT_NE(found, std::string_view::npos);
        EXPECT_EQ(script.find("__WATCHED_TITLE__", found + 1), std::string_view::npos);
    }
}

TEST(PageResultTests, HalfASurrogatePairDoesNotLoseTheMessage) {
    const auto message = decodedPageResult<ManagedWhatsAppObservedInboundMessage>(
        R"({"text":"cut \ud83d","senderDisplayName":"\ude42 Ann","fingerprint":"\ud83d\ude42"})");
    EXPECT_EQ(message.text, "cut \uFFFD");
    EXPECT_EQ(message.senderDisplayName, "\uFFFD Ann");
    EXPECT_EQ(message.fingerprint, "🙂");
}

TEST(PageResultTests, WhatIsNoJsonIsAFailure) {
    EXPECT_THROW(decodedPageResult<ManagedWhatsAppLinkedStatePayload>("undefined"), DecodingFailure);
    EXPECT_THROW(decodedPageResult<ManagedWhatsAppLinkedStatePayload>(""), DecodingFailure);
}

TEST_F(PageScriptRunnerTests, PageThatLeavesFourScriptsInARowUnansweredIsGivenUp) {
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(parts_.host.count("endProcess"), 0U);
        auto task = runScript("s");
        task.start();
        parts_.host.advance(seconds(30));
    }
    EXPECT_EQ(parts_.host.count("endProcess"), 1U);
}

TEST_F(PageScriptRunnerTests, AnAnswerInBetweenKeepsThePage) {
    for (int i = 0; i < 8; ++i) {
        auto task = runScript("s");
        task.start();
        if (i % 4 == 3) parts_.host.answer(parts_.host.pending.size() - 1, test::failure("Error: no."));
        parts_.host.advance(seconds(30));
    }
    EXPECT_EQ(parts_.host.count("endProcess"), 0U);
}

TEST_F(PageScriptRunnerTests, AnAnswerThatComesLateKeepsThePageToo) {
    for (int i = 0; i < 8; ++i) {
        auto task = runScript("s");
        task.start();
        parts_.host.advance(seconds(30));
        if (i % 3 == 2) parts_.host.answer(0, test::result("late"));
    }
    EXPECT_EQ(parts_.host.count("endProcess"), 0U);
}

}  // namespace
}  // namespace brindle
