/// The built-in worker in front of a page that answers anything.
///
/// Whatever a page answers, the worker goes on: what it publishes and hands over can be read, nothing is made
/// up, and the log keeps its lines. Parts of an input: the watched title, then the page's answers in the
/// order of the scripts (link state, picture of the code, chat activation, inbound capture).
#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>

#include "exchange/DataDirectory.h"
#include "fuzz/MemoryFiles.h"
#include "fuzz/Promises.h"
#include "support/ScriptedHost.h"
#include "text/Base64.h"
#include "worker/ChatCapture.h"
#include "worker/LinkStateMonitor.h"
#include "worker/PageScripts.h"

namespace {

using namespace brindle;
using fuzz::require;

constexpr std::string_view inbound_directory = "/data/inbound";
constexpr auto status_file = "/data/runtime/worker-status.json";
constexpr auto qr_code_file = "/data/runtime/worker-qr.png";
constexpr std::string_view png_data_url_prefix = "data:image/png;base64,";

/// The parts of the worker that listen to the page, in front of one that answers as it was told.
struct Worker {
    explicit Worker(std::string_view watchedTitle) {
        state.currentWatchedTitle = watchedTitle;
        host.answerScript = [this](const std::string&) { return std::optional(nextAnswer()); };
    }

    EvaluationOutcome nextAnswer() {
        if (answers.empty()) return test::noResult();
        auto outcome = test::result(std::string(answers.front()));
        answers.pop_front();
        return outcome;
    }
    template <class Result>
    void finish(Task<Result> task) {
        constexpr int longest_wait_ms = 100000;
        task.start();
        host.settle();
        for (int waited_ms = 0; !task.isDone(); ++waited_ms) {
            require(waited_ms < longest_wait_ms, "a task ends once the page has answered");
            host.advance(std::chrono::milliseconds(1));
        }
    }

    std::deque<std::string_view> answers;
    fuzz::MemoryFiles files;
    test::TestClock clock;
    test::ScriptedHost host{clock};
    test::DeafDelegate delegate;
    std::unique_ptr<WebPage> page = host.openPage(delegate);
    WorkerState state;
    LoadRecovery recovery{clock};
    WorkerLog log{host};
    WorkerStatusPublisher publisher{state, files, status_file, clock, log};
    QRCodeFile qrCode{files, qr_code_file};
    PageScriptRunner scripts{*page, host};
    LinkStateMonitor linkState{*page, scripts, recovery, qrCode, state, publisher, log};
    ChatCapture capture{scripts, host, files, std::string(inbound_directory), clock, state, publisher, log};
};

template <class Payload>
std::optional<Payload> payloadIn(std::string_view answer) {
    try {
        return decodedPageResult<Payload>(answer);
    } catch (const DecodingFailure&) {
        return std::nullopt;
    }
}

bool isMessage(const ManagedWhatsAppObservedInboundMessage& message) {
    return message.text && message.fingerprint && !trimmed(*message.text).empty();
}

/// How many messages an answer holds.
std::size_t messagesIn(std::string_view answer) {
    const auto drain = payloadIn<ManagedWhatsAppObservedInboundDrainPayload>(answer);
    if (!drain || drain->state != capture_state::ok || !drain->activeChatTitle || !drain->messages) return 0;
    return static_cast<std::size_t>(
        std::count_if(drain->messages->begin(), drain->messages->end(), isMessage));
}

/// The records that were handed over.
std::size_t requireReadableRecords(fuzz::MemoryFiles& files) {
    std::size_t count = 0;
    for (const auto& [path, content] : files.contents) {
        if (!path.starts_with(inbound_directory)) continue;
        ++count;
        const auto record = decodedRecord<ManagedWhatsAppWorkerInboundRecord>(std::string_view(content));
        require(path == DataDirectory::recordFile(inbound_directory, record.messageId),
                "a record is named after its message");
        require(!trimmed(record.text).empty(), "a message has text");
        // As the backend reads it.
        decodedRecord<ManagedWhatsAppInboundRecord>(std::string_view(content));
    }
    return count;
}

void requireStatus(fuzz::MemoryFiles& files) {
    if (!files.fileExists(status_file)) return;
    const auto status = readRecord<ManagedWhatsAppWorkerStatusRecord>(files, status_file);
    require(!status.state.empty() && !status.detail.value_or("").empty(), "a status says something");
}

void requirePictureOf(fuzz::MemoryFiles& files, std::string_view address) {
    if (!files.fileExists(qr_code_file)) return;
    require(address.starts_with(png_data_url_prefix), "only a picture is shown");
    const auto encoded = base64Encoded(files.readFile(qr_code_file));
    require(encoded.size() == address.size() - png_data_url_prefix.size(), "the whole picture is shown");
}

void requireWholePairs(std::string_view answer) {
    const auto repaired = withoutLoneSurrogates(answer);
    require(withoutLoneSurrogates(repaired) == repaired, "what was repaired needs no repair");
    try {
        JsonParser().parse(answer);
        require(repaired == answer, "a document that can be read is not changed");
    } catch (const DecodingFailure&) {
        // Nothing follows for one that cannot.
    }
}

void requireQuotedTitle(std::string_view title) {
    constexpr std::string_view wrapper = "{\"state\":";
    const auto script = scriptWithWatchedTitle(
        std::string(wrapper).append(page_script::watched_title_placeholder).append("}"), title);
    const auto quoted = decodedRecord<ManagedWhatsAppChatActivationPayload>(std::string_view(script));
    require(quoted.state == repairedUtf8(title), "a title stays a text in the script");
}

void decodeAsEverything(std::string_view answer) {
    fuzz::requireLastingOrRefused(
        [&] { return decodedPageResult<ManagedWhatsAppLinkedStatePayload>(answer); });
    fuzz::requireLastingOrRefused(
        [&] { return decodedPageResult<ManagedWhatsAppChatActivationPayload>(answer); });
    fuzz::requireLastingOrRefused(
        [&] { return decodedPageResult<ManagedWhatsAppObservedInboundDrainPayload>(answer); });
    requireWholePairs(answer);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto answers = fuzz::separated(fuzz::inputText(data, size), fuzz::part_separator);
    Worker worker(answers.front());
    requireQuotedTitle(answers.front());
    answers.erase(answers.begin());
    worker.answers.assign(answers.begin(), answers.end());
    answers.resize(4);
    worker.finish(worker.linkState.refreshLinkState());
    worker.finish(worker.linkState.refreshQRCode());
    requirePictureOf(worker.files, answers[1]);
    worker.finish(worker.capture.pollInboundMessages());
    const auto records = requireReadableRecords(worker.files);
    require(records == 0 || records == messagesIn(answers[3]),
            "every message of an answer is handed over, and nothing else");
    requireStatus(worker.files);
    for (const auto& line : worker.host.log) fuzz::requireSentence(line);
    for (const auto& answer : answers) decodeAsEverything(answer);
    return 0;
}
