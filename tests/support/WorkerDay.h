#pragma once

#include <unistd.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "exchange/DataDirectory.h"
#include "exchange/EnvironmentKeys.h"
#include "support/Files.h"
#include "support/Json.h"
#include "support/PageScriptKinds.h"
#include "support/QuickFileManager.h"
#include "support/ScriptedHost.h"
#include "support/TemporaryDirectory.h"
#include "support/TestClock.h"
#include "support/WorkerParts.h"
#include "system/Environment.h"
#include "worker/ManagedWhatsAppWebWorkerService.h"

namespace brindle::test {

/// A data directory that outlives its workers: the backend wants a chat to be watched, and a fresh link.
class WorkerPlace {
  public:
    static constexpr auto conversation_id = "family-room";

    WorkerPlace() {
        directory.createForBackend(real);
        writeFileAtomically(
            directory.workerControlFile,
            Json{{"platform", "whatsapp"},
                 {"activeScope", {{"kind", "conversation"}, {"id", conversation_id}, {"title", "Family"}}},
                 {"updatedAtISO8601", ""}}
                .dump());
        writeFileAtomically(directory.freshLinkRequestFile, "");
    }

    /// The texts that wait in "inbound", in order of their names; fails the test when one is not whole.
    std::vector<std::string> texts() const {
        std::vector<std::string> texts;
        for (const auto& name : visibleNamesIn(directory.inbound))
            texts.push_back(readJsonFile(directory.inbound + "/" + name)["text"]);
        return texts;
    }

    TemporaryDirectory home{TemporaryDirectory::Place::memory};
    QuickFileManager real;
    brindle::Environment environment{
        {std::string(environment_key::data_directory), (home.path() / "data").string()}};
    DataDirectory directory{environment, real, "whatsapp"};
};

/// A working day of the web worker in short: what a fresh link needs is removed, a code is shown and scanned,
/// a chat is opened and every look at it finds two messages, and the end is asked for.
class WorkerDay {
  public:
    /// The picture of the code.
    static constexpr std::string_view picture = "\x89PNG\r\n\x1A\n";

    WorkerDay(const WorkerPlace& place, FileManager& files, std::string name)
        : service_("whatsapp", place.environment, files, clock_, host_, ::getppid()), name_(std::move(name)) {
        host_.answerScript = [this](const std::string& script) { return answerTo(kindOf(script)); };
        host_.whileRunning = [this] { work(); };
    }

    /// What happens when the work is done; the worker goes on for a while before its end is asked for.
    std::function<void()> inTheEvening = [] {};

    /// Throws what the worker throws.
    void spend() { service_.start(); }

    /// The texts of the messages that the page has given away: "Monday 1" ...
    const std::vector<std::string>& given() const { return given_; }
    /// Whether the website data are gone.
    bool isForgotten() const { return isForgotten_; }
    bool hasWorked() const { return hasWorked_; }
    /// What was written to the system log.
    const std::vector<std::string>& log() const { return host_.log; }
    bool isLinkedAtTheEnd() const { return isLinkedAtTheEnd_; }

  private:
    static constexpr std::chrono::milliseconds scanned_after{2500};
    static constexpr std::chrono::milliseconds length{4500};
    static constexpr std::chrono::milliseconds evening{1500};

    void work() {
        if (!host_.removals.empty()) {
            isForgotten_ = true;
            host_.removals.front()(true);
        }
        service_.pageFinished();
        host_.advance(length);
        inTheEvening();
        host_.advance(evening);
        isLinkedAtTheEnd_ = service_.state().isLinked;
        hasWorked_ = true;
        host_.end();
    }
    std::optional<EvaluationOutcome> answerTo(Script kind) {
        const bool isScanned = clock_.now() - TestClock::start > scanned_after;
        switch (kind) {
            case Script::qrCode:
                return isScanned ? noResult() : result(code_answer);
            case Script::linkState:
                return result(isScanned ? linked_answer : not_linked_answer);
            case Script::activation:
                return result(R"({"state":"active"})");
            case Script::capture:
                break;
        }
        const auto first = giveAway();
        const auto second = giveAway();
        return result(R"({"state":"ok","activeChatTitle":"Family","messages":[)" + first + "," + second +
                      "]}");
    }
    std::string giveAway() {
        given_.push_back(name_ + " " + std::to_string(given_.size() + 1));
        return R"({"fingerprint":"f","text":")" + given_.back() + R"("})";
    }

    TestClock clock_;
    ScriptedHost host_{clock_};
    ManagedWhatsAppWebWorkerService service_;
    std::string name_;
    std::vector<std::string> given_;
    bool isForgotten_ = false;
    bool hasWorked_ = false;
    bool isLinkedAtTheEnd_ = false;
};

}  // namespace brindle::test
