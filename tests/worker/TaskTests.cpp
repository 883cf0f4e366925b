#include "worker/Task.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

namespace brindle {
namespace {

using Log = std::vector<std::string>;

/// Says when it goes.
class Witness {
  public:
    Witness(Log& log, std::string name) : log_(log), name_(std::move(name)) {}
    Witness(const Witness&) = delete;
    Witness& operator=(const Witness&) = delete;
    ~Witness() { log_.push_back(name_ + " gone"); }

  private:
    Log& log_;
    std::string name_;
};

Task<std::string> textOf(Answer<std::string>& answer) {
    std::string text = co_await answer;
    co_return text;
}

Task<> logText(Log& log, Answer<std::string>& answer) {
    log.emplace_back("begun");
    std::string text = co_await textOf(answer);
    log.push_back(text);
}

Task<std::string> fail(Answer<std::string>& answer) {
    std::string text = co_await answer;
    throw std::runtime_error(text);
}

Task<> failAtOnce() {
    throw std::runtime_error("at once");
    co_return;
}

Task<> logFailure(Log& log, Answer<std::string>& answer) {
    try {
        std::string text = co_await fail(answer);
        log.push_back("no failure: " + text);
    } catch (const std::runtime_error& error) {
        log.emplace_back(error.what());
    }
}

Task<> passOn(Answer<std::string>& answer) {
    co_await fail(answer);
}

Task<> logPassedFailure(Log& log, Answer<std::string>& answer) {
    try {
        co_await passOn(answer);
    } catch (const std::runtime_error& error) {
        log.emplace_back(error.what());
    }
}

Task<> waitWithWitness(Log& log, Answer<std::string>& answer) {
    const Witness witness(log, "inner");
    co_await answer;
    log.emplace_back("answered");
}

Task<> waitAround(Log& log, Answer<std::string>& answer) {
    const Witness witness(log, "outer");
    co_await waitWithWitness(log, answer);
}

Task<> sum(int& total, int count) {
    for (int i = 0; i < count; ++i) {
        Answer<int> answer;
        answer.callback()(1);
        total += co_await answer;
    }
}

TEST(TaskTests, DoesNothingBeforeItIsStarted) {
    Log log;
    Answer<std::string> answer;
    const auto task = logText(log, answer);
    EXPECT_TRUE(log.empty());
    EXPECT_FALSE(task.isDone());
}

TEST(TaskTests, RunsUpToItsFirstWaitAndGoesOnWithTheAnswer) {
    Log log;
    Answer<std::string> answer;
    auto task = logText(log, answer);
    task.start();
    EXPECT_EQ(log, Log{"begun"});
    EXPECT_FALSE(task.isDone());
    answer.callback()("text");
    EXPECT_EQ(log, (Log{"begun", "text"}));
    EXPECT_TRUE(task.isDone());
}

TEST(TaskTests, DoesNotWaitForAnAnswerThatIsThere) {
    Log log;
    Answer<std::string> answer;
    answer.callback()("text");
    auto task = logText(log, answer);
    task.start();
    EXPECT_TRUE(task.isDone());
    EXPECT_EQ(log, (Log{"begun", "text"}));
}

TEST(TaskTests, AnswerThatIsThereWaitsUntilItIsAwaited) {
    int total = 0;
    auto task = sum(total, 10'000);
    task.start();
    EXPECT_TRUE(task.isDone());
    EXPECT_EQ(total, 10'000);
}

TEST(TaskTests, FailureReachesTheOneWhoAwaits) {
    Log log;
    Answer<std::string> answer;
    auto task = logFailure(log, answer);
    task.start();
    answer.callback()("reason");
    EXPECT_TRUE(task.isDone());
    EXPECT_EQ(log, Log{"reason"});
}

TEST(TaskTests, FailurePassesThroughTasksThatDoNotCatchIt) {
    Log log;
    Answer<std::string> answer;
    auto task = logPassedFailure(log, answer);
    task.start();
    answer.callback()("reason");
    EXPECT_EQ(log, Log{"reason"});
}

TEST(TaskTests, FailureThatNobodyAwaitsEndsTheTask) {
    auto task = failAtOnce();
    EXPECT_NO_THROW(task.start());
    EXPECT_TRUE(task.isDone());
}

TEST(TaskTests, FailureThatNobodyAwaitsDoesNotReachTheOneWhoAnswers) {
    Answer<std::string> answer;
    auto task = passOn(answer);
    task.start();
    EXPECT_NO_THROW(answer.callback()("reason"));
    EXPECT_TRUE(task.isDone());
}

TEST(TaskTests, DestroyingATaskGivesUpEverythingThatWaitsInIt) {
    Log log;
    Answer<std::string> answer;
    {
        auto task = waitAround(log, answer);
        task.start();
    }
    EXPECT_EQ(log, (Log{"inner gone", "outer gone"}));
}

TEST(TaskTests, TaskThatWasNeverStartedIsDestroyedQuietly) {
    Log log;
    Answer<std::string> answer;
    { const auto task = waitAround(log, answer); }
    EXPECT_TRUE(log.empty());
}

Task<> waitForOwnAnswer(Log& log, std::function<void(std::string)>& callback) {
    Answer<std::string> answer;
    callback = answer.callback();
    std::string text = co_await answer;
    log.push_back(text);
}

TEST(TaskTests, AnswerAfterTheTaskWasDestroyedDoesNothing) {
    Log log;
    std::function<void(std::string)> callback;
    {
        auto task = waitForOwnAnswer(log, callback);
        task.start();
    }
    callback("late");
    EXPECT_TRUE(log.empty());
}

TEST(TaskTests, AnswerAfterTheTaskHasEndedDoesNothing) {
    Log log;
    std::function<void(std::string)> callback;
    auto task = waitForOwnAnswer(log, callback);
    task.start();
    callback("first");
    callback("second");
    EXPECT_EQ(log, Log{"first"});
}

TEST(TaskTests, OnlyTheFirstAnswerCounts) {
    Log log;
    Answer<std::string> answer;
    const auto one = answer.callback();
    const auto other = answer.callback();
    one("first");
    other("second");
    auto task = logText(log, answer);
    task.start();
    EXPECT_EQ(log, (Log{"begun", "first"}));
}

TEST(TaskTests, MovedTaskGoesOn) {
    Log log;
    Answer<std::string> answer;
    auto first = logText(log, answer);
    first.start();
    auto second = std::move(first);
    answer.callback()("text");
    EXPECT_TRUE(second.isDone());
    EXPECT_EQ(log, (Log{"begun", "text"}));
}

TEST(TaskTests, AssignedTaskTakesThePlaceOfTheOther) {
    Log log;
    Answer<std::string> answer;
    Answer<std::string> otherAnswer;
    {
        auto task = waitAround(log, answer);
        task.start();
        auto other = logText(log, otherAnswer);
        other.start();
        task = std::move(other);
    }
    EXPECT_EQ(log, (Log{"begun", "inner gone", "outer gone"}));
    otherAnswer.callback()("late");
    EXPECT_EQ(log.size(), 3U);
}

static_assert(!std::is_copy_constructible_v<Task<>>);

}  // namespace
}  // namespace brindle
