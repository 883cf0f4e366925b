#include <poll.h>
#include <sys/inotify.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "Bench.h"
#include "SamplePage.h"
#include "support/BackendProcess.h"
#include "support/TestDisplay.h"
#include "support/WebWorkerProcess.h"
#include "support/WorkerCost.h"
#include "system/Descriptor.h"

namespace brindle::bench {
namespace {

using std::chrono::system_clock;

double milliseconds(system_clock::duration duration) {
    return std::chrono::duration<double, std::milli>(duration).count();
}

/// A worker that captures the chat of the bench while that many small changes a second happen in it.
test::ProcessCost costWith(int changesASecond, std::chrono::seconds time) {
    constexpr std::chrono::seconds settling_time{5};
    const SamplePage page(changingScript(changing_messages, changesASecond), changing_messages);
    test::IdleWorker worker(test::WebWorkerOptions().withUrl(page.url()), bench_chat);
    worker.measure(std::min(time, settling_time));
    return test::total(worker.measure(time));
}

/// Where a helper with the built-in worker finds the page and keeps what is its own.
test::BackendOptions launchOn(const SamplePage& page, const DataDirectory& directory) {
    auto launch = test::WebWorkerOptions().withUrl(page.url()).on(test::TestDisplay::shared()).process;
    auto& environment = launch.environment;
    environment.erase("BRINDLE_MANAGED_BRIDGE_WORKER_ROLE");
    environment["BRINDLE_MANAGED_BRIDGE_DATA_DIR"] = directory.path();
    for (const char* name : {"HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME"})
        environment[name] = directory.path().parent_path() / "home" / name;
    environment["BRINDLE_MANAGED_BRIDGE_ENABLE_BUILTIN_WORKER"] = "1";
    environment["BRINDLE_MANAGED_BRIDGE_DISABLE_NATIVE_WORKER"] = "1";
    return launch;
}

/// Messages at moments that have nothing to do with the worker's ticks, each with the time of its insertion.
std::string insertingScript() {
    return conversationScript(20) +
           "const insert = () => {\n"
           "    sampleWebClient.receive({ chat: '" +
           bench_chat +
           "', sender: 'Ann Lee', text: 'at ' + Date.now() });\n"
           "    setTimeout(insert, 1000 + Math.random() * 1000);\n"
           "};\n"
           "setTimeout(insert, 3000);\n";
}

/// What stands behind `before` in the line, up to the next quotation mark.
std::string behind(const std::string& before, std::string_view line) {
    const auto found = line.find(before);
    if (found == std::string_view::npos)
        throw std::runtime_error("No message of the page: " + std::string(line));
    const auto begin = found + before.size();
    return std::string(line.substr(begin, line.find('"', begin) - begin));
}

/// A helper with the built-in worker on a page that inserts messages, seen from both of its ends.
class MessageRoad {
  public:
    explicit MessageRoad(const Place& place)
        : directory_(place),
          page_(insertingScript(), 60),
          launch_(launchOn(page_, directory_)),
          helper_({launch_.executable}, launch_.environment),
          news_(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
        connectAndListen(helper_, bench_chat);
        if (::inotify_add_watch(news_.get(), (directory_.path() / "inbound").c_str(), IN_MOVED_TO) < 0)
            throw std::runtime_error("The directory of the records cannot be watched.");
    }

    /// Adds, for each message that comes next, the milliseconds from its insertion and from its record.
    void sample(std::vector<double>& fromPage, std::vector<double>& fromRecord) {
        constexpr int patience_ms = 120'000;
        std::array<pollfd, 2> ready{{{.fd = helper_.output(), .events = POLLIN, .revents = 0},
                                     {.fd = news_.get(), .events = POLLIN, .revents = 0}}};
        if (::poll(ready.data(), ready.size(), patience_ms) <= 0)
            throw std::runtime_error("No message arrives from the page.");
        const auto now = system_clock::now();
        if (ready[1].revents != 0) noteRecords(now);
        if (ready[0].revents != 0) takeLines(now, fromPage, fromRecord);
    }

  private:
    void noteRecords(system_clock::time_point now) {
        alignas(inotify_event) std::array<char, 65536> events{};
        const auto got = ::read(news_.get(), events.data(), events.size());
        for (ssize_t at = 0; at < got;) {
            const auto* event = reinterpret_cast<const inotify_event*>(events.data() + at);
            records_[event->name] = now;
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
    }

    void takeLines(system_clock::time_point now, std::vector<double>& fromPage,
                   std::vector<double>& fromRecord) {
        std::istringstream lines{std::string(helper_.readSome())};
        for (std::string line; std::getline(lines, line);) {
            const std::chrono::milliseconds inserted(std::stoll(behind("\"text\":\"at ", line)));
            fromPage.push_back(milliseconds(now.time_since_epoch() - inserted));
            const auto record = records_.find(behind("\"messageId\":\"", line) + ".json");
            if (record != records_.end()) fromRecord.push_back(milliseconds(now - record->second));
        }
    }

    DataDirectory directory_;
    SamplePage page_;
    test::BackendOptions launch_;
    Program helper_;
    Descriptor news_;
    std::map<std::string, system_clock::time_point> records_;
};

}  // namespace

void measureWorkerTree(Bench& bench) {
    bench.announce("worker");
    const std::vector<int> rates = bench.isSmoke() ? std::vector{10} : std::vector{0, 1, 10, 30, 60};
    const std::chrono::seconds time(bench.inFull(20, 1));
    for (const int changesASecond : rates) {
        const auto cost = costWith(changesASecond, time);
        const auto rate = static_cast<double>(changesASecond);
        bench.add({.name = "worker tree, by changes a second: memory",
                   .size = rate,
                   .unit = "MiB",
                   .helper = {cost.memory_mebibytes}});
        bench.add({.name = "worker tree, by changes a second: processor",
                   .size = rate,
                   .unit = "% of a core",
                   .helper = {cost.processor_percent}});
    }
}

void measureMessageRoad(Bench& bench) {
    bench.announce("message road");
    const std::size_t messages = bench.inFull<std::size_t>(120, 2);
    MessageRoad road(bench.places().front());
    Figure fromPage{.name = "message road, insertion to line", .unit = "ms"};
    Figure fromRecord{.name = "message road, record to line", .unit = "ms"};
    while (fromPage.helper.size() < messages) road.sample(fromPage.helper, fromRecord.helper);
    bench.addWithWorst(std::move(fromPage));
    bench.addWithWorst(std::move(fromRecord));
}

}  // namespace brindle::bench
