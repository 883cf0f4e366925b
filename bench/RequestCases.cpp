#include <cstdint>
#include <random>
#include <stdexcept>
#include <string>

#include "Bench.h"
#include "ProcessFigures.h"
#include "text/Base64.h"

namespace brindle::bench {
namespace {

constexpr std::size_t bytes_per_mebibyte = 1 << 20;

std::string repeated(const std::string& text, std::size_t times) {
    std::string all;
    all.reserve(text.size() * times);
    for (std::size_t count = 0; count < times; ++count) all += text;
    return all;
}

void measureConnectOn(Bench& bench, const Place& place, std::size_t requests) {
    constexpr std::size_t lines_per_connect = 2;
    const auto input = repeated(connectLine(), requests);
    const double scale = microseconds_per_second / static_cast<double>(requests);
    const auto sample = [&](Program& program) {
        return costOf(program, [&] { program.exchange(input, requests * lines_per_connect); });
    };
    addInTurns(
        bench,
        {.name = "connect, pipelined, per request",
         .place = place.fileSystem,
         .size = static_cast<double>(requests),
         .unit = "us"},
        scale, bench.inFull(15, 2),
        [&] {
            const DataDirectory directory(place);
            Program helper = startHelper(directory.path());
            helper.exchange("", greeting_lines);
            waitUntilQuiet(helper.processIdentifier());
            return sample(helper);
        },
        [&] {
            const DataDirectory directory(place);
            directory.make();
            Program floor = startFloor("floor_connect", {directory.path()});
            floor.exchange("", 1);
            return sample(floor);
        });
}

/// A message of about that many bytes with an attachment that no file stands behind.
std::string sendLine(std::size_t bytes) {
    // Seeded, so that every run sends the same; compressed pictures look like this.
    std::mt19937_64 random(1);
    std::string data(bytes / 4 * 3, '\0');
    for (char& byte : data) byte = static_cast<char>(random());
    return R"({"sendMessage":{"_0":{"message":{"attachments":[{"dataBase64":")" + base64Encoded(data) +
           R"(","fileName":"picture.bin","kind":"file","mimeType":"application/octet-stream"}],)"
           R"("conversationId":"team-room","text":"Look"},"platform":"whatsapp"}}})"
           "\n";
}

struct Send {
    Cost cost{};
    double peakKibibytes = 0;
};

/// Until the answer to a bad line behind the message, which costs nothing.
Send sampleSend(Program& program, const std::string& input, const DataDirectory& directory) {
    Send send;
    send.cost = costOf(program, [&] { program.exchange(input, 1); });
    send.peakKibibytes = peakKibibytes(program.processIdentifier());
    if (directory.entriesIn("outbound") != 1)
        throw std::runtime_error("The message was not accepted, so the request was not measured.");
    return send;
}

Send sendToHelper(const Place& place, const std::string& input) {
    const DataDirectory directory(place);
    Program helper = startHelper(directory.path());
    helper.exchange("", greeting_lines);
    waitUntilQuiet(helper.processIdentifier());
    return sampleSend(helper, input, directory);
}

Send sendToFloor(const Place& place, const std::string& input) {
    const DataDirectory directory(place);
    directory.make();
    Program floor = startFloor("floor_send", {directory.path()});
    floor.exchange("", 1);
    return sampleSend(floor, input, directory);
}

void measureSendOf(Bench& bench, const Place& place, std::size_t bytes, int rounds) {
    const auto input = sendLine(bytes) + badLine();
    const double lineKibibytes = static_cast<double>(input.size()) / 1024;
    const auto size = static_cast<double>(bytes);
    Figure peak{
        .name = "sendMessage, peak memory", .place = place.fileSystem, .size = size, .unit = "x line"};
    addInTurns(
        bench, {.name = "sendMessage", .place = place.fileSystem, .size = size, .unit = "ms"},
        milliseconds_per_second, rounds,
        [&] {
            const auto send = sendToHelper(place, input);
            peak.helper.push_back(send.peakKibibytes / lineKibibytes);
            return send.cost;
        },
        [&] {
            const auto send = sendToFloor(place, input);
            peak.floor.push_back(send.peakKibibytes / lineKibibytes);
            return send.cost;
        });
    bench.add(std::move(peak));
}

}  // namespace

void measureConnect(Bench& bench) {
    bench.announce("connect");
    for (const auto& place : bench.places())
        measureConnectOn(bench, place, bench.inFull<std::size_t>(2'000, 100));
}

void measureSend(Bench& bench) {
    bench.announce("sendMessage");
    for (const auto& place : bench.places()) {
        if (bench.isSmoke()) {
            measureSendOf(bench, place, bytes_per_mebibyte, 1);
            continue;
        }
        measureSendOf(bench, place, bytes_per_mebibyte / 16, 9);
        for (const std::size_t mebibytes : {1U, 4U, 16U, 64U})
            measureSendOf(bench, place, mebibytes * bytes_per_mebibyte, mebibytes < 64 ? 9 : 5);
    }
}

}  // namespace brindle::bench
