#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "records/JsonParser.h"
#include "records/Record.h"
#include "text/Failure.h"
#include "worker/Task.h"
#include "worker/WebWorkerHost.h"

namespace brindle {

/// The script with the placeholder of the watched title replaced by the title as a JSON string literal, so
/// that no title can become script.
std::string scriptWithWatchedTitle(std::string_view script, std::string_view watchedTitle);

/// The record that a script made with JSON.stringify. Throws DecodingFailure.
template <RecordType Payload>
Payload decodedPageResult(std::string_view result) {
    return decodedRecord<Payload>(withoutLoneSurrogates(result));
}

/// The page did not answer a script in time; it may still do so.
class LateAnswer : public Failure {
  public:
    explicit LateAnswer(Answer<EvaluationOutcome> answer);

    /// For whoever wants the answer whenever it comes, which may be never.
    const Answer<EvaluationOutcome>& answer() const { return answer_; }

  private:
    Answer<EvaluationOutcome> answer_;
};

/// Runs scripts in the page.
class PageScriptRunner {
  public:
    /// Both outlive it and every script that it runs.
    PageScriptRunner(WebPage& page, WebWorkerHost& host) : page_(page), host_(host) {}

    /// The string that the script results in; nothing for every other result. Throws Failure when the
    /// evaluation fails, LateAnswer when the page does not answer in time. A page that leaves several scripts
    /// in a row without any answer is given up, and its process ended.
    Task<std::optional<std::string>> evaluateJavaScriptStringAsync(std::string script);

  private:
    void noteSilence();

    WebPage& page_;
    WebWorkerHost& host_;
    /// In a row. Shared with the answers still to come, which may outlive everything.
    std::shared_ptr<int> unansweredScripts_ = std::make_shared<int>(0);
};

}  // namespace brindle
