#include "worker/PageScriptRunner.h"

#include <chrono>
#include <memory>
#include <utility>
#include <variant>

#include "worker/PageScripts.h"

namespace brindle {
namespace {

/// A page that hangs must not keep a timer's work waiting for ever.
constexpr std::chrono::seconds script_time_limit{30};

/// A page that merely works hard answers one of them, be it late. Two timers wait for answers, so a page that
/// hangs is given up after one to two minutes.
constexpr int unanswered_scripts_of_a_dead_page = 4;

}  // namespace

std::string scriptWithWatchedTitle(std::string_view script, std::string_view watchedTitle) {
    JsonWriter writer(JsonStyle::compact);
    writer.string(watchedTitle);
    const std::string literal = writer.finish();
    std::string result;
    // Over the original text: the title may itself be the placeholder.
    for (;;) {
        const auto found = script.find(page_script::watched_title_placeholder);
        result.append(script.substr(0, found));
        if (found == std::string_view::npos) return result;
        result.append(literal);
        script.remove_prefix(found + page_script::watched_title_placeholder.size());
    }
}

LateAnswer::LateAnswer(Answer<EvaluationOutcome> answer)
    : Failure("The page did not answer a script within " + std::to_string(script_time_limit.count()) +
              " seconds."),
      answer_(std::move(answer)) {}

Task<std::optional<std::string>> PageScriptRunner::evaluateJavaScriptStringAsync(std::string script) {
    const Answer<EvaluationOutcome> answer;
    // By the answer or by the end of the patience.
    const Answer<std::monostate> end;
    const auto endWait = end.callback();
    const std::unique_ptr<HostTimer> limit =
        host_.once(script_time_limit, [endWait] { endWait(std::monostate()); });
    page_.evaluate(script, [deliver = answer.callback(), endWait,
                            unanswered = unansweredScripts_](EvaluationOutcome outcome) {
        *unanswered = 0;
        deliver(std::move(outcome));
        endWait(std::monostate());
    });
    co_await end;
    if (!answer.hasArrived()) {
        noteSilence();
        throw LateAnswer(answer);
    }
    EvaluationOutcome outcome = co_await answer;
    if (outcome.error) throw Failure(*outcome.error);
    co_return std::move(outcome.value);
}

void PageScriptRunner::noteSilence() {
    if (++*unansweredScripts_ < unanswered_scripts_of_a_dead_page) return;
    *unansweredScripts_ = 0;
    page_.endProcess();
}

}  // namespace brindle
