#include "EchoWorker.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <fstream>
#include <iterator>
#include <utility>

using nlohmann::json;

namespace {

constexpr const char* echo_infix = "-echo-";
constexpr const char* record_ending = ".json";

/// What to watch. A self-test is the helper's own business, and so is any kind that we do not know.
std::optional<Chat> chatIn(const json& control) {
    const auto scope = control.find("activeScope");
    if (scope == control.end() || scope->is_null()) return std::nullopt;
    if (!scope->is_object()) throw files::Unusable("Its activeScope is not an object.");
    Chat chat{
        .kind = files::textOf(*scope, "kind"), .id = files::optionalTextOf(*scope, "id", ""), .title = ""};
    if (chat.kind != "conversation" && chat.kind != "channel" && chat.kind != "thread") return std::nullopt;
    if (!scope->contains("id")) return std::nullopt;
    chat.title = files::optionalTextOf(*scope, "title", chat.id);
    return chat;
}

/// Names can hold line feeds; a line of ours cannot.
std::string inOneLine(std::string name) {
    std::replace_if(
        name.begin(), name.end(), [](unsigned char c) { return c < ' '; }, ' ');
    return name;
}

}  // namespace

void say(int descriptor, const std::string& text) {
    const auto line = text + "\n";
    [[maybe_unused]] const auto written = ::write(descriptor, line.data(), line.size());
}

Places::Places(const std::string& dataDirectory)
    : inbound(dataDirectory + "/inbound"),
      outbound(dataDirectory + "/outbound"),
      processed(dataDirectory + "/processed"),
      rejected(dataDirectory + "/rejected"),
      sent(dataDirectory + "/runtime/worker-processed-outbound"),
      refused(dataDirectory + "/runtime/worker-rejected-outbound"),
      control(dataDirectory + "/runtime/worker-control.json"),
      status(dataDirectory + "/runtime/worker-status.json"),
      pid(dataDirectory + "/runtime/worker.pid") {}

EchoWorker::EchoWorker(const std::string& dataDirectory, std::string platform, std::function<bool()> mustEnd)
    : places_(dataDirectory),
      platform_(std::move(platform)),
      mustEnd_(std::move(mustEnd)),
      names_(places_.inbound, echo_infix) {}

EchoWorker::~EchoWorker() {
    removeOwnFiles();
}

void EchoWorker::start() {
    files::write(places_.pid, std::to_string(::getpid()), files::Flush::no);
    publishStatus();
}

void EchoWorker::round() {
    std::string problems;
    // Each step by itself: a full disk must not keep the heartbeat from being tried.
    for (const auto step :
         {&EchoWorker::followControl, &EchoWorker::sendWaiting, &EchoWorker::publishStatus}) {
        try {
            (this->*step)();
        } catch (const std::exception& problem) {
            problems.append(problems.empty() ? "" : "\n").append(problem.what());
        }
    }
    // What stays wrong is said once, not in every round.
    if (!problems.empty() && problems != problems_) say(STDERR_FILENO, problems);
    problems_ = problems;
}

/// No file, no scope, or one that cannot be read: there is nothing to watch.
void EchoWorker::followControl() {
    try {
        const auto control = files::readRecord(places_.control);
        if (files::textOf(control, "platform") != platform_) return;
        watched_ = chatIn(control);
    } catch (const files::Failure& failure) {
        watched_.reset();
        if (failure.error() != ENOENT) throw;
    } catch (const files::Unusable& problem) {
        watched_.reset();
        throw files::Unusable("Cannot use " + places_.control + ": " + problem.what());
    }
}

void EchoWorker::sendWaiting() {
    const auto waiting = files::waitingRecords(places_.outbound);
    if (!waiting.empty() && !echoed_) echoed_ = echoedAmong(waiting);
    for (const auto& name : waiting) {
        if (mustEnd_()) return;
        const auto record = outgoing(name);
        if (!record) continue;
        send(*record);
        // Last of all: a worker that dies before this line finds the record again.
        files::move(name, places_.outbound, places_.sent);
        echoed_->erase(files::textOf(*record, "messageId"));
    }
}

/// The record in that file, or nothing when it had to be refused. Throws files::Failure when it may be in
/// order later; those behind it must not overtake it and wait as well.
std::optional<json> EchoWorker::outgoing(const std::string& name) {
    try {
        auto record = files::readRecord(places_.outbound + "/" + name);
        for (const auto* field : {"conversationId", "text", "createdAtISO8601"}) files::textOf(record, field);
        // It becomes part of a file name; it can be trusted when it already is one.
        if (files::textOf(record, "messageId") + record_ending != name) {
            throw files::Unusable("Its message identifier is not its file name.");
        }
        return record;
    } catch (const files::Unusable& problem) {
        say(STDERR_FILENO, "Rejected outbound record " + inOneLine(name) + ": " + problem.what());
        files::move(name, places_.outbound, places_.refused);
        return std::nullopt;
    }
}

/// Your service sends here. Done twice it must have the effect of once, because a crash may come right after.
void EchoWorker::send(const json& record) {
    const auto messageId = files::textOf(record, "messageId");
    if (echoed_->contains(messageId)) return;
    receive(record);
    echoed_->insert(messageId);
    say(STDOUT_FILENO, "Echoed message " + messageId + ".");
}

/// Writes a message that came in. The name begins with a number, because messages are delivered in the order
/// of their names, and ends with the message that is echoed, so that the echo is known again after a crash.
void EchoWorker::receive(const json& record) {
    const auto sentId = files::textOf(record, "messageId");
    const auto conversation = files::textOf(record, "conversationId");
    const auto messageId = names_.next() + echo_infix + sentId;
    const auto chat =
        watched_.value_or(Chat{.kind = "conversation", .id = conversation, .title = conversation});
    const json echo{{"messageId", messageId},
                    {"conversationId", chat.id},
                    {"conversationTitle", chat.title},
                    {"senderId", "echo"},
                    {"senderDisplayName", "Echo"},
                    {"text", "Echo: " + files::textOf(record, "text")},
                    {"timestampISO8601", files::now()},
                    {"isDirectMessage", chat.kind == "conversation"},
                    {"rawReference", sentId}};
    files::writeRecord(places_.inbound + "/" + messageId + record_ending, echo, files::Flush::yes);
}

/// The messages that wait although an earlier worker has echoed them. Looked for once: later on we know
/// ourselves. In the order in which the helper moves the file, so that one on its way is not missed.
std::set<std::string> EchoWorker::echoedAmong(const std::vector<std::string>& waiting) const {
    std::set<std::string> messageIds;
    for (const auto& place : {places_.inbound, places_.processed, places_.rejected}) {
        for (const auto& name : files::visibleNames(place)) {
            const auto infix = name.find(echo_infix);
            if (infix == std::string::npos) continue;
            const auto echoed = name.substr(infix + std::string(echo_infix).size());
            if (!std::binary_search(waiting.begin(), waiting.end(), echoed)) continue;
            messageIds.insert(echoed.substr(0, echoed.size() - std::string(record_ending).size()));
        }
    }
    return messageIds;
}

/// Whoever watches tells by the heartbeat whether we are alive.
void EchoWorker::publishStatus() {
    const json status{
        {"state", watched_ ? "watching_chat" : "linked"},
        {"detail", watched_ ? "Watching " + watched_->title + "." : "Linked; no chat is being watched."},
        {"displayName", "Echo"},
        {"lastHeartbeatISO8601", files::now()},
        {"supportsLiveCapture", true},
        {"supportsOutbound", true}};
    files::writeRecord(places_.status, status, files::Flush::no);
}

/// By now the next helper may have started a worker of its own, whose files these are.
void EchoWorker::removeOwnFiles() noexcept {
    try {
        std::ifstream file(places_.pid);
        const std::string content{std::istreambuf_iterator<char>(file), {}};
        if (content != std::to_string(::getpid())) return;
        ::unlink(places_.status.c_str());
        ::unlink(places_.pid.c_str());
    } catch (const std::exception&) {
        // What cannot be read stays.
    }
}
