#include "storm/Ledger.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <utility>

#include "support/Files.h"
#include "support/Json.h"
#include "support/TextForms.h"

namespace brindle::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* inbound = "inbound";
constexpr const char* outbound = "outbound";
constexpr const char* processed = "processed";
constexpr const char* rejected = "rejected";
constexpr const char* taken = "runtime/worker-processed-outbound";
constexpr const char* refused = "runtime/worker-rejected-outbound";
constexpr std::array record_directories{inbound, outbound, processed, rejected, taken, refused};
constexpr std::array runtime_files{
    "runtime-status.json", "worker-control.json",       "worker-status.json",      "worker.pid",
    "worker-qr.png",       "worker-processed-outbound", "worker-rejected-outbound"};
constexpr std::string_view temporary_prefix = ".brindle-";
constexpr std::size_t temporary_name_length = temporary_prefix.size() + 6;

bool isTemporary(const std::string& name) {
    return name.starts_with(temporary_prefix) && name.size() == temporary_name_length;
}

bool isInboundSeries(Series series) {
    return series != Series::outbound && series != Series::garbage;
}

}  // namespace

Ledger::Ledger(fs::path dataDirectory) : root_(std::move(dataDirectory)) {}

std::vector<std::string> Ledger::settle(const LifeEnd& end) {
    problems_.clear();
    readOutput(end);
    places_.clear();
    const auto temporariesBefore = temporaries_;
    for (const char* directory : record_directories) readDirectory(directory);
    checkPlaces();
    checkInbound(end);
    checkOutbound(end);
    checkLeftovers();
    if (end.isWhole && temporaries_ > temporariesBefore) {
        problems_.emplace_back("temporary files outlive a life that was not cut short");
    }
    startLife();
    return std::move(problems_);
}

void Ledger::startLife() {
    requestedNow_.clear();
    marks_.clear();
    errors_ = 0;
    receivedNow_.clear();
    last_.clear();
    for (const auto& [message, directories] : places_) {
        if (lies(message, processed)) filedAway_.insert(message);
    }
}

void Ledger::readOutput(const LifeEnd& end) {
    auto lines = linesOf(end.output);
    const bool endsWithPart = !end.output.empty() && end.output.back() != '\n';
    if (endsWithPart && end.mayBeRepeated == 0) {
        problems_.push_back("the output ends in the middle of a line although nobody was killed");
    }
    if (endsWithPart) lines.pop_back();
    for (const auto& line : lines) takeLine(line);
}

void Ledger::takeLine(const std::string& line) {
    const auto envelope = Json::parseIfPossible(line);
    if (!envelope || !envelope->isObject() || envelope->size() != 1) {
        problems_.push_back("no envelope: " + line.substr(0, 200));
        return;
    }
    if (envelope->firstName() == "error") return takeError();
    if (envelope->firstName() != "inboundEvent") return;
    if (const auto message = Message::in(envelope->atPointer("/inboundEvent/_0/event")))
        return takeEvent(*message);
    problems_.push_back("an event without a whole message: " + line.substr(0, 200));
}

void Ledger::takeError() {
    if (errors_ == marks_.size()) {
        problems_.emplace_back("more errors than lines that deserve one");
        return;
    }
    const auto carriedOut = static_cast<std::ptrdiff_t>(marks_[errors_]);
    acknowledged_.insert(requestedNow_.begin(), requestedNow_.begin() + carriedOut);
    ++errors_;
}

void Ledger::takeEvent(const Message& message) {
    if (!isInboundSeries(message.series))
        return report(message, "was delivered, which is no inbound message");
    if (!receivedNow_.insert(message).second) return report(message, "was delivered twice in one life");
    if (filedAway_.contains(message)) report(message, "was delivered although it had been filed away before");
    const auto last = last_.find(message.series);
    if (last != last_.end() && message < last->second) {
        report(message, "was delivered after " + last->second.name());
    }
    last_[message.series] = message;
    if (!received_.insert(message).second) ++repeated_;
}

void Ledger::readDirectory(const std::string& directory) {
    for (const auto& name : namesIn(root_ / directory)) {
        if (isTemporary(name)) {
            ++temporaries_;
        } else {
            takeFile(directory, name);
        }
    }
}

void Ledger::takeFile(const std::string& directory, const std::string& name) {
    auto known = messageOfFile_.find(name);
    if (known == messageOfFile_.end()) {
        const auto content = readFile(root_ / directory / name);
        const auto record = Json::parseIfPossible(content);
        auto message = record ? Message::in(*record) : Message::withText(content);
        if (!message) {
            problems_.push_back(directory + "/" + name + " is no message: " + content.substr(0, 200));
            return;
        }
        known = messageOfFile_.emplace(name, *message).first;
    }
    places_[known->second].push_back(directory);
    if (isInboundSeries(known->second.series)) known_.insert(known->second);
}

bool Ledger::lies(const Message& message, const std::string& directory) const {
    const auto found = places_.find(message);
    return found != places_.end() &&
           std::find(found->second.begin(), found->second.end(), directory) != found->second.end();
}

void Ledger::checkPlaces() {
    for (const auto& [message, directories] : places_) {
        if (directories.size() > 1) report(message, "lies in more than one place");
        const auto& place = directories.front();
        const bool isOutgoing = message.series == Series::outbound;
        const bool liesOutgoing = place == outbound || place == taken;
        const bool liesIncoming = place == inbound || place == processed;
        if (message.series == Series::garbage) {
            if (place != inbound && place != rejected) report(message, "is garbage and lies in " + place);
        } else if (isOutgoing ? !liesOutgoing : !liesIncoming) {
            report(message, "lies in " + place);
        }
    }
}

void Ledger::checkInbound(const LifeEnd& end) {
    std::size_t undecided = 0;
    for (const auto& message : known_) {
        if (!places_.contains(message)) report(message, "is lost: it lies nowhere");
        if (lies(message, processed) && !received_.contains(message)) {
            report(message, "is lost: filed away, and the parent has not got it");
        }
        if (!lies(message, inbound)) continue;
        if (receivedNow_.contains(message)) ++undecided;
        // The page goes on talking to the end.
        const bool mayWait = message.series == Series::page;
        if (end.isWhole && !mayWait) report(message, "has not been delivered");
    }
    for (const auto& message : received_) {
        if (!known_.contains(message)) report(message, "was delivered without ever having been there");
    }
    if (undecided > end.mayBeRepeated) {
        problems_.push_back(std::to_string(undecided) + " messages were delivered and not filed away");
    }
}

void Ledger::checkOutbound(const LifeEnd& end) {
    for (const auto& [message, directories] : places_) {
        if (message.series == Series::outbound) stored_.insert(message);
    }
    for (const auto& message : stored_) {
        if (!requested_.contains(message)) report(message, "was never requested");
        if (!places_.contains(message)) report(message, "is lost: its record lies nowhere");
        const Message echo{Series::echo, message.number};
        if (lies(message, taken) && !known_.contains(echo))
            report(message, "was filed away without its echo");
        if (end.isWhole && end.hasNativeWorker && lies(message, outbound)) report(message, "was not taken");
    }
    for (const auto& message : acknowledged_) {
        if (!stored_.contains(message)) report(message, "is lost: carried out, and no record was ever there");
    }
}

void Ledger::checkLeftovers() {
    for (const auto& name : namesIn(root_ / "runtime")) {
        const bool isKnown =
            std::find(runtime_files.begin(), runtime_files.end(), name) != runtime_files.end();
        if (isTemporary(name)) {
            ++temporaries_;
        } else if (!isKnown) {
            problems_.push_back("runtime/" + name + " was left behind");
        }
    }
}

void Ledger::report(const Message& message, const std::string& what) {
    problems_.push_back("message " + message.name() + " " + what);
}

}  // namespace brindle::test
