#include "Parent.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <sysexits.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <iostream>
#include <utility>
#include <vector>

using nlohmann::json;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

constexpr const char* bridge_version = "managed-whatsapp-backend-3";
constexpr milliseconds look_interval{1000};
constexpr milliseconds first_pause{1000};
constexpr milliseconds longest_pause{60'000};
/// Whoever has run for so long has not failed at once.
constexpr std::chrono::seconds good_run{60};

/// The signals that ask for the end wait until somebody asks for them.
Descriptor endSignals() {
    sigset_t set;
    ::sigemptyset(&set);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) ::sigaddset(&set, number);
    ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
    return Descriptor(required(::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK), "preparing signals"));
}

std::string howItEnded(int status) {
    return WIFSIGNALED(status) ? "by signal " + std::to_string(WTERMSIG(status))
                               : "with status " + std::to_string(WEXITSTATUS(status));
}

std::string trimmed(const std::string& text) {
    constexpr const char* blanks = " \t\r";
    const auto begin = text.find_first_not_of(blanks);
    if (begin == std::string::npos) return "";
    return text.substr(begin, text.find_last_not_of(blanks) - begin + 1);
}

/// How many bytes at that place make a terminal obey, or turn the reading direction.
std::size_t unshowableAt(const std::string& text, std::size_t place) {
    const auto byte = static_cast<unsigned char>(text[place]);
    if ((byte < 0x20 && byte != '\n') || byte == 0x7f) return 1;
    // U+0080 to U+009F, U+061C, U+200E and U+200F, U+2028 to U+202E, U+2066 to U+2069.
    const auto next = [&](std::size_t offset) {
        return place + offset < text.size() ? static_cast<unsigned char>(text[place + offset]) : 0U;
    };
    if (byte == 0xc2 && next(1) >= 0x80 && next(1) <= 0x9f) return 2;
    if (byte == 0xd8 && next(1) == 0x9c) return 2;
    if (byte != 0xe2) return 0;
    const bool isMark =
        next(1) == 0x80 && ((next(2) >= 0x8e && next(2) <= 0x8f) || (next(2) >= 0xa8 && next(2) <= 0xae));
    const bool isIsolate = next(1) == 0x81 && next(2) >= 0xa6 && next(2) <= 0xa9;
    return isMark || isIsolate ? 3 : 0;
}

}  // namespace

std::string shown(const std::string& text) {
    std::string result;
    for (std::size_t place = 0; place < text.size();) {
        const auto unshowable = unshowableAt(text, place);
        if (unshowable > 0) {
            result += '?';
        } else {
            result += text[place] == '\n' ? "\n    " : std::string(1, text[place]);
        }
        place += std::max<std::size_t>(unshowable, 1);
    }
    return result;
}

void say(const std::string& text) {
    std::cerr << shown(text) + "\n";
}

Parent::Parent(Settings settings)
    : settings_(std::move(settings)),
      signals_(endSignals()),
      journal_(settings_.state + "/messages.jsonl"),
      typed_([this](const std::string& line) {
          if (const auto text = trimmed(line); !text.empty()) unsent_.push_back(text);
      }) {}

void Parent::run() {
    auto pause = first_pause;
    while (serve() == Outcome::helperIsLost) {
        const bool wasGood = helper_->age() > good_run;
        const int status = helper_->end();
        // It does not take the launch token: trying again does not help.
        if (WIFEXITED(status) && WEXITSTATUS(status) == EX_USAGE) {
            throw GivenUp("The helper does not take our launch token.");
        }
        if (wasGood) pause = first_pause;
        say("The helper has ended " + howItEnded(status) + "; it is started again in " +
            std::to_string(pause / std::chrono::seconds(1)) + " s.");
        if (wait(pause) == Outcome::mustEnd) return;
        pause = std::min(2 * pause, longest_pause);
    }
    // What was typed is still sent.
    sendTyped();
    helper_->end();
}

/// Starts a helper and works with it until it is of no use any more.
Parent::Outcome Parent::serve() {
    isGreeted_ = hasEnded_ = false;
    worker_ = nullptr;
    words_ = {};
    helper_ = std::make_unique<Helper>(
        settings_.program, settings_.state,
        Helper::Handlers{.envelope = [this](const json& envelope) { hear(envelope); },
                         .diagnostic = [](const std::string& line) { say("helper| " + line); }});
    while (true) {
        if (isAskedToEnd(steady_clock::now() + look_interval)) return Outcome::mustEnd;
        if (hasEnded_ || (isGreeted_ && workerIsLost())) return Outcome::helperIsLost;
    }
}

/// Lets the time pass.
Parent::Outcome Parent::wait(milliseconds time) {
    helper_.reset();
    return isAskedToEnd(steady_clock::now() + time) ? Outcome::mustEnd : Outcome::helperIsLost;
}

/// Reads and writes whatever can be read and written, until then or the end of the helper.
bool Parent::isAskedToEnd(steady_clock::time_point until) {
    while (!hasEnded_ || !helper_) {
        const auto left = std::chrono::duration_cast<milliseconds>(until - steady_clock::now());
        if (left.count() <= 0) return false;
        std::vector<pollfd> set{{.fd = signals_.get(), .events = POLLIN, .revents = 0},
                                {.fd = isInputOver_ ? -1 : STDIN_FILENO, .events = POLLIN, .revents = 0}};
        if (helper_) helper_->addTo(set);
        if (::poll(set.data(), set.size(), static_cast<int>(left.count())) < 0) continue;
        if (set[1].revents != 0) readTyped();
        if (set[0].revents != 0 || isInputOver_) return true;
        if (!helper_) continue;
        hasEnded_ = !helper_->work(set);
        if (isGreeted_) sendTyped();
    }
    return false;
}

void Parent::readTyped() {
    isInputOver_ = !typed_.readFrom(STDIN_FILENO);
}

/// What the helper says: the next line is taken when this one is stored.
void Parent::hear(const json& envelope) {
    const auto& name = envelope.begin().key();
    const auto& record = envelope.begin().value().at("_0");
    if (name == "hello") {
        greet(record);
    } else if (name == "inboundEvent") {
        const auto& event = record.at("event");
        if (!journal_.add(event)) return;
        const std::string sender = event.at("senderDisplayName");
        std::cout << shown(sender + ": " + event.at("text").get<std::string>()) + "\n" << std::flush;
    } else if (name == "stateChanged") {
        say("connection: " + record.at("state").begin().key());
    } else if (name == "error") {
        say("The helper could not carry out a request: " + record.at("message").get<std::string>());
    }
}

void Parent::greet(const json& hello) {
    const std::string version = hello.at("bridgeVersion");
    if (version != bridge_version)
        say("The helper speaks " + version + ", this program " + bridge_version + ".");
    const json chat{{"id", settings_.chatId}, {"title", settings_.title}};
    helper_->request("connect");
    helper_->request("startListening", {{"scope", {{"conversation", chat}}}});
    isGreeted_ = true;
}

void Parent::sendTyped() {
    for (; !unsent_.empty(); unsent_.pop_front()) {
        const json message{{"conversationId", settings_.chatId}, {"text", unsent_.front()}};
        helper_->request("sendMessage", {{"message", message}});
        if (worker_.contains("workerLastHeartbeatISO8601") && worker_.at("workerSupportsOutbound") == false) {
            say("This worker does not send; the message is kept until one comes that does.");
        }
    }
}

/// Looks at the helper's status file, says what is new about the worker, and whether it is gone for good:
/// only a fresh helper starts a fresh worker.
bool Parent::workerIsLost() {
    const auto runtime = settings_.state + "/data/runtime/";
    std::ifstream file(runtime + "runtime-status.json");
    const auto status = json::parse(file, nullptr, false);
    if (!status.is_object()) return false;
    const std::string word = status.at("workerState");
    // The built-in worker alternates between two words for as long as two things are true.
    if (std::find(words_.begin(), words_.end(), word) == words_.end()) {
        words_ = {words_[1], word};
        say("worker: " + word + ": " + status.value("workerDetail", ""));
        if (word == "waiting_for_qr") say("Scan " + runtime + "worker-qr.png with the phone.");
    }
    worker_ = status;
    return word == "exited" || word == "launch_failed";
}
