#include "storm/Traffic.h"

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "storm/Messages.h"
#include "support/Files.h"
#include "support/Requests.h"

namespace brindle::test {
namespace {

namespace fs = std::filesystem;

/// How many messages of each direction may be under way.
constexpr std::size_t window = 400;
/// One of so many messages is followed by garbage.
constexpr std::int64_t garbage_interval = 50;

/// Quicker than a stream of the library, and without a name that is made by chance.
void place(const fs::path& directory, const std::string& name, const std::string& content) {
    const auto hidden = directory / ("." + name);
    {
        std::ofstream file(hidden, std::ios::binary);
        file << content;
    }
    fs::rename(hidden, directory / name);
}

void empty(const fs::path& directory) {
    for (const auto& name : visibleNamesIn(directory)) fs::remove(directory / name);
}

}  // namespace

void Traffic::turn() {
    constexpr std::int64_t burst = 50;
    for (std::int64_t i = 0; i < burst; ++i) {
        if (inbound_.underWay.size() < window) placeInbound();
        if (echoes_.underWay.size() < window) send();
    }
    takeOutput();
    cleanUp();
}

void Traffic::finish() {
    const auto isAllThere = [&] {
        takeOutput();
        return inbound_.underWay.empty() && echoes_.underWay.empty() && errors_ == badLines_;
    };
    process_.waitUntil(isAllThere, "everything that is under way");
    cleanUp();
}

void Traffic::begin(Direction& direction) {
    direction.underWay.emplace(direction.begun++, Clock::now());
}

void Traffic::placeInbound() {
    const Message message{Series::inbound, inbound_.begun};
    const auto identifier = message.identifier();
    begin(inbound_);
    place(process_.path("inbound"), identifier + ".json", inboundRecord(identifier, message.text()).dump(2));
    if (message.number % garbage_interval == 0) placeGarbage();
}

void Traffic::placeGarbage() {
    const Message message{Series::garbage, static_cast<std::int64_t>(garbage_++)};
    place(process_.path("inbound"), message.identifier() + ".json", "{\"text\": " + message.name());
}

void Traffic::send() {
    const Message message{Series::outbound, echoes_.begun};
    begin(echoes_);
    process_.send(sendMessageRequest(teamRoomMessage(message.text())).dump());
    if (message.number % garbage_interval != 0) return;
    process_.send("{\"sendMessage\": " + message.name());
    ++badLines_;
    ++garbage_;
}

void Traffic::takeOutput() {
    for (const auto& line : process_.takeLines()) takeLine(line);
}

void Traffic::takeLine(const std::string& line) {
    const auto envelope = Json::parse(line);
    if (envelope.contains("error")) {
        if (++errors_ > badLines_) throw TestFailure("an error for a good line: " + line);
        return;
    }
    if (!envelope.contains("inboundEvent")) return;
    const auto message = Message::in(envelope.atPointer("/inboundEvent/_0/event"));
    if (!message) throw TestFailure("an event without a whole message: " + line.substr(0, 200));
    arrive(message->series == Series::echo ? echoes_ : inbound_, message->number);
}

void Traffic::arrive(Direction& direction, std::int64_t number) {
    const auto message = direction.underWay.find(number);
    if (message == direction.underWay.end()) {
        throw TestFailure("message " + std::to_string(number) + " came twice, or was never sent");
    }
    if (message != direction.underWay.begin()) {
        throw TestFailure("message " + std::to_string(number) + " came before others");
    }
    latencies_.push_back(std::chrono::duration<double, std::milli>(Clock::now() - message->second).count());
    direction.underWay.erase(message);
    ++arrived_;
}

void Traffic::cleanUp() const {
    for (const char* directory : {"processed", "rejected", "runtime/worker-processed-outbound"}) {
        empty(process_.path(directory));
    }
}

double Traffic::takeMedianLatency() {
    if (latencies_.empty()) return 0;
    const auto middle = latencies_.begin() + static_cast<std::ptrdiff_t>(latencies_.size() / 2);
    std::nth_element(latencies_.begin(), middle, latencies_.end());
    const double median = *middle;
    latencies_.clear();
    return median;
}

}  // namespace brindle::test
