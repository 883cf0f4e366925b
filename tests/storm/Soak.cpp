#include <sys/types.h>
#include <time.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "storm/Traffic.h"
#include "storm/Trend.h"
#include "support/BackendProcess.h"
#include "support/Executables.h"
#include "support/Files.h"
#include "support/Processes.h"

namespace brindle::test {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds sample_interval{2};
constexpr std::chrono::seconds row_interval{60};
constexpr double bytes_per_kibibyte = 1024;

/// Kibibytes of memory that no other process has, from the system's own sum.
double privateDirtyKibibytes(pid_t process) {
    std::istringstream lines(contentOrNothing(fs::path("/proc") / std::to_string(process) / "smaps_rollup"));
    const std::string label = "Private_Dirty:";
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(label)) return std::stod(line.substr(label.size()));
    }
    return 0;
}

std::size_t threadsOf(pid_t process) {
    return namesIn(fs::path("/proc") / std::to_string(process) / "task").size();
}

using Microseconds = std::chrono::duration<double, std::micro>;

/// What all threads of the process have taken of the processors (POSIX clock_getcpuclockid).
Microseconds processorTime(pid_t process) {
    clockid_t clock = 0;
    timespec taken{};
    if (::clock_getcpuclockid(process, &clock) != 0 || ::clock_gettime(clock, &taken) != 0)
        throw std::runtime_error("The processor time of " + std::to_string(process) + " cannot be told.");
    return std::chrono::seconds(taken.tv_sec) + std::chrono::nanoseconds(taken.tv_nsec);
}

/// What one process takes, sample by sample.
class ProcessSamples {
  public:
    ProcessSamples(const std::string& name, pid_t process) : process_(process) {
        // Single pages come and go; what is lost for good shows in an hour.
        constexpr double memory_kibibytes = 256;
        // Shared pages count the more the fewer others have them at the moment.
        constexpr double shared_kibibytes = 512;
        constexpr double memory_share = 0.05;
        // A processor that others use meanwhile has forgotten more of what it knew at each turn.
        constexpr double time_share = 0.5;
        quantities = {{name + " PSS KiB", memory_share, shared_kibibytes},
                      {name + " dirty KiB", memory_share, memory_kibibytes},
                      {name + " fds", 0, 1},
                      {name + " threads", 0, 0.5},
                      {name + " us a message", time_share, 0}};
    }

    /// `messages` is how many went through it so far.
    void take(std::size_t messages) {
        const std::vector<double> values{
            static_cast<double>(proportionalSetBytes(process_)) / bytes_per_kibibyte,
            privateDirtyKibibytes(process_), static_cast<double>(descriptorsOf(process_).size()),
            static_cast<double>(threadsOf(process_)), timeOfAMessage(messages)};
        for (std::size_t index = 0; index < values.size(); ++index)
            quantities[index].samples.push_back(values[index]);
    }

    std::vector<Quantity> quantities;

  private:
    /// In microseconds since the last sample; as at that one when there was no message since.
    double timeOfAMessage(std::size_t messages) {
        if (messages > messages_) {
            const auto taken = processorTime(process_);
            timeOfAMessage_ = (taken - taken_) / static_cast<double>(messages - messages_);
            taken_ = taken;
            messages_ = messages;
        }
        return timeOfAMessage_.count();
    }

    pid_t process_;
    Microseconds taken_{};
    Microseconds timeOfAMessage_{};
    std::size_t messages_ = 0;
};

BackendOptions options() {
    BackendOptions options;
    options.environment.erase("BRINDLE_MANAGED_BRIDGE_DISABLE_WORKER");
    options.environment["BRINDLE_MANAGED_BRIDGE_NATIVE_WORKER_PATH"] = nativeWorkerExecutable();
    return options;
}

class Soak {
  public:
    explicit Soak(std::chrono::minutes length, const fs::path& table)
        : length_(length),
          table_(table),
          process_(options()),
          traffic_(process_),
          backend_("backend", process_.pid()),
          worker_("worker", workerProcess()) {
        process_.connectAndListen();
    }

    bool run() {
        const auto begin = Clock::now();
        auto nextSample = begin + sample_interval;
        while (Clock::now() - begin < length_) {
            traffic_.turn();
            if (Clock::now() < nextSample) continue;
            nextSample += sample_interval;
            sample(Clock::now() - begin);
        }
        traffic_.finish();
        process_.closeInput();
        const bool hasEndedWell = process_.waitForExit() == exitedWith(0);
        if (!hasEndedWell) std::cout << "The helper did not end as it should.\n";
        return summarize() && hasEndedWell;
    }

  private:
    pid_t workerProcess() const { return std::stoi(readFile(process_.waitForFile("runtime/worker.pid"))); }

    std::vector<const Quantity*> quantities() const {
        std::vector<const Quantity*> all;
        for (const auto* process : {&backend_, &worker_}) {
            for (const auto& quantity : process->quantities) all.push_back(&quantity);
        }
        all.push_back(&latency_);
        return all;
    }

    void sample(Clock::duration elapsed) {
        backend_.take(traffic_.messages());
        worker_.take(traffic_.messages());
        latency_.samples.push_back(traffic_.takeMedianLatency());
        if (backend_.quantities.front().samples.size() == 1) writeHeading();
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(elapsed).count();
        table_ << seconds << '\t' << traffic_.messages();
        for (const auto* quantity : quantities()) table_ << '\t' << quantity->samples.back();
        table_ << std::endl;
        if (seconds / row_interval.count() == minutesShown_) return;
        minutesShown_ = seconds / row_interval.count();
        std::cout << std::setw(4) << minutesShown_ << " min " << std::setw(9) << traffic_.messages()
                  << " messages";
        for (const auto* quantity : quantities())
            std::cout << "  " << quantity->name << " " << quantity->samples.back();
        std::cout << std::endl;
    }

    void writeHeading() {
        table_ << "seconds\tmessages";
        for (const auto* quantity : quantities()) table_ << '\t' << quantity->name;
        table_ << '\n';
    }

    /// The table of trends; whether all are flat.
    bool summarize() const {
        constexpr int name_width = 22;
        constexpr int number_width = 14;
        std::cout << "\n"
                  << traffic_.messages() << " messages and " << traffic_.garbage() << " pieces of garbage\n"
                  << std::left << std::setw(name_width) << "trend" << std::right << std::setw(number_width)
                  << "after warm-up" << std::setw(number_width) << "at the end"
                  << "\n"
                  << std::fixed << std::setprecision(1);
        bool isFlat = true;
        for (const auto* quantity : quantities()) {
            const auto [begin, end] = quantity->trend();
            std::cout << std::left << std::setw(name_width) << quantity->name << std::right
                      << std::setw(number_width) << begin << std::setw(number_width) << end
                      << (quantity->isFlat() ? "" : "  grows") << "\n";
            isFlat = isFlat && quantity->isFlat();
        }
        return isFlat;
    }

    std::chrono::minutes length_;
    std::ofstream table_;
    BackendProcess process_;
    Traffic traffic_;
    ProcessSamples backend_;
    ProcessSamples worker_;
    // For the reader alone: it tells as much of what else the machine does. What the helper makes of a
    // message is in its processor time.
    Quantity latency_{.name = "latency ms", .tolerated = std::numeric_limits<double>::infinity()};
    std::int64_t minutesShown_ = 0;
};

}  // namespace
}  // namespace brindle::test

int main(int argumentCount, char** arguments) {
    try {
        if (argumentCount != 3) throw std::invalid_argument("Usage: soak MINUTES TABLE");
        const std::chrono::minutes length(std::stol(arguments[1]));
        return brindle::test::Soak(length, arguments[2]).run() ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const std::exception& failure) {
        std::cerr << failure.what() << "\n";
        return EXIT_FAILURE;
    }
}
