#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/TestClock.h"
#include "worker/WebWorkerHost.h"

namespace brindle::test {

/// Hears nothing.
class DeafDelegate final : public WebPageDelegate {
  public:
    void pageFinished() override {}
    void navigationFailed(const std::string&) override {}
    void provisionalNavigationFailed(const std::string&) override {}
    void pageLost(const std::string&) override {}
};

/// An evaluation that succeeded with a string.
inline EvaluationOutcome result(std::string text) {
    return {.value = std::move(text), .error = std::nullopt};
}
/// An evaluation that succeeded with null, a number or anything else that is no string.
inline EvaluationOutcome noResult() {
    return {};
}
/// An evaluation that failed.
inline EvaluationOutcome failure(std::string sentence) {
    return {.value = std::nullopt, .error = std::move(sentence)};
}

/// An engine that a test plays: it turns the clock, answers scripts and reports what happens to the page.
/// Nothing happens but on the test's word.
class ScriptedHost final : public WebWorkerHost {
  public:
    using Done = std::function<void(EvaluationOutcome)>;

    /// A script that was handed to the page.
    struct Evaluation {
        std::string script;
        Done done;
    };

    /// Time passes on `clock`.
    explicit ScriptedHost(TestClock& clock) : clock_(clock) {}

    /// What happens while the worker runs; the loop ends when it returns.
    std::function<void()> whileRunning = [] {};
    /// Answers a script, or leaves it waiting in `pending`.
    std::function<std::optional<EvaluationOutcome>(const std::string& script)> answerScript =
        [](const std::string&) { return std::nullopt; };
    /// Whether a text is an address.
    std::function<bool(std::string_view text)> takesAsAddress = [](std::string_view text) {
        return text.find("://") != std::string_view::npos;
    };

    /// Evaluations without an answer, in order.
    std::vector<Evaluation> pending;
    /// Removals of website data without an answer.
    std::vector<std::function<void(bool isGone)>> removals;
    /// Everything else that was asked of page and loop, in order: "loadAddress https://... 60".
    std::vector<std::string> calls;
    /// What was written to the system log.
    std::vector<std::string> log;
    /// The interval and tolerance of every repeating timer there ever was.
    std::vector<std::pair<std::chrono::milliseconds, std::chrono::milliseconds>> repeatingTimers;
    WebPageDelegate* delegate = nullptr;
    bool hasPage = false;
    bool hasEnded = false;

    /// Lets time pass: fires the timers that become due, each at its time, and answers scripts in between.
    void advance(std::chrono::milliseconds duration) {
        settle();
        const auto end = now_ + duration;
        while (Timer* timer = nextDue(end)) {
            turnTo(timer->due);
            fire(*timer);
            settle();
        }
        turnTo(end);
    }
    /// Answers what can be answered, until nothing follows from it.
    void settle() {
        for (std::size_t i = 0; i < pending.size();) {
            auto outcome = answerScript(pending[i].script);
            if (!outcome) {
                ++i;
                continue;
            }
            answer(i, std::move(*outcome));
            i = 0;
        }
    }
    /// Answers the script at that place among those that wait.
    void answer(std::size_t place, EvaluationOutcome outcome) {
        const Done done = std::move(pending.at(place).done);
        pending.erase(pending.begin() + static_cast<std::ptrdiff_t>(place));
        done(std::move(outcome));
    }
    /// Answers the only script that waits.
    void answerOnly(EvaluationOutcome outcome) {
        if (pending.size() != 1) throw std::logic_error(std::to_string(pending.size()) + " scripts wait.");
        answer(0, std::move(outcome));
    }
    std::size_t count(const std::string& call) const {
        return static_cast<std::size_t>(std::count(calls.begin(), calls.end(), call));
    }
    /// The timers that wait for their time.
    std::size_t runningTimers() const {
        return static_cast<std::size_t>(
            std::count_if(timers_.begin(), timers_.end(), [](const auto& each) { return !each->isOver; }));
    }

    std::unique_ptr<WebPage> openPage(WebPageDelegate& pageDelegate) override {
        delegate = &pageDelegate;
        calls.emplace_back("openPage");
        return std::make_unique<Page>(*this);
    }
    std::unique_ptr<HostTimer> repeat(std::chrono::milliseconds interval, std::chrono::milliseconds tolerance,
                                      std::function<void()> tick) override {
        repeatingTimers.emplace_back(interval, tolerance);
        return startTimer(interval, true, std::move(tick));
    }
    std::unique_ptr<HostTimer> once(std::chrono::milliseconds delay, std::function<void()> action) override {
        return startTimer(delay, false, std::move(action));
    }
    void run() override {
        calls.emplace_back("run");
        if (!hasEnded) whileRunning();
    }
    void end() override {
        calls.emplace_back("end");
        hasEnded = true;
    }
    void logError(const std::string& message) override { log.push_back(message); }

  private:
    struct Timer {
        std::chrono::milliseconds interval;
        bool repeats;
        std::function<void()> action;
        std::chrono::milliseconds due;
        bool isOver = false;
    };

    class Handle final : public HostTimer {
      public:
        Handle(ScriptedHost& host, std::shared_ptr<Timer> timer) : host_(host), timer_(std::move(timer)) {}
        Handle(const Handle&) = delete;
        Handle& operator=(const Handle&) = delete;
        ~Handle() override { std::erase(host_.timers_, timer_); }

      private:
        ScriptedHost& host_;
        std::shared_ptr<Timer> timer_;
    };

    class Page final : public WebPage {
      public:
        explicit Page(ScriptedHost& host) : host_(host) { host_.hasPage = true; }
        Page(const Page&) = delete;
        Page& operator=(const Page&) = delete;
        ~Page() override { host_.hasPage = false; }

        bool isAddress(std::string_view text) const override { return host_.takesAsAddress(text); }
        void loadText(const std::string& html, const std::string& baseDirectory) override {
            host_.calls.push_back("loadText " + baseDirectory + " " + html);
        }
        void loadAddress(const std::string& address, std::chrono::seconds timeout) override {
            host_.calls.push_back("loadAddress " + address + " " + std::to_string(timeout.count()));
        }
        void reload() override { host_.calls.emplace_back("reload"); }
        void evaluate(const std::string& script, Done done) override {
            host_.pending.push_back({.script = script, .done = std::move(done)});
        }
        void removeAllWebsiteData(std::function<void(bool isGone)> done) override {
            host_.calls.emplace_back("removeAllWebsiteData");
            host_.removals.push_back(std::move(done));
        }
        void endProcess() override { host_.calls.emplace_back("endProcess"); }
        void orderOut() override { host_.calls.emplace_back("orderOut"); }

      private:
        ScriptedHost& host_;
    };

    std::unique_ptr<HostTimer> startTimer(std::chrono::milliseconds interval, bool repeats,
                                          std::function<void()> action) {
        timers_.push_back(std::make_shared<Timer>(Timer{
            .interval = interval, .repeats = repeats, .action = std::move(action), .due = now_ + interval}));
        return std::make_unique<Handle>(*this, timers_.back());
    }
    /// The timer that is due first, of several the one that was started first; none after the end.
    Timer* nextDue(std::chrono::milliseconds end) const {
        if (hasEnded) return nullptr;
        Timer* next = nullptr;
        for (const auto& timer : timers_) {
            if (timer->isOver || timer->due > end) continue;
            if (next == nullptr || timer->due < next->due) next = timer.get();
        }
        return next;
    }
    void fire(Timer& timer) {
        // Its action may destroy it.
        const auto found = std::find_if(timers_.begin(), timers_.end(),
                                        [&](const auto& each) { return each.get() == &timer; });
        const auto keep = *found;
        timer.due += timer.interval;
        timer.isOver = !timer.repeats;
        timer.action();
    }
    void turnTo(std::chrono::milliseconds time) {
        clock_.pass(time - now_);
        now_ = time;
    }

    TestClock& clock_;
    std::chrono::milliseconds now_{0};
    std::vector<std::shared_ptr<Timer>> timers_;
};

}  // namespace brindle::test
