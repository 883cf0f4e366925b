/// Starts the built-in web worker on the sample web client, lets it capture while nobody writes, and prints
/// what each process of its tree costs, beside the bounds: worker_bench [changes [seconds]]. With a number,
/// so many small changes a second happen in a chat of 300 messages meanwhile; with a second one, it measures
/// so long.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "SamplePage.h"
#include "support/WorkerCost.h"

namespace brindle::bench {
namespace {

constexpr std::chrono::seconds settling_time{5};
constexpr std::chrono::seconds usual_time{20};

void print(const test::ProcessCost& cost) {
    std::printf("%-18s %10.1f %12.2f\n", cost.name.c_str(), cost.memory_mebibytes, cost.processor_percent);
}

std::vector<test::ProcessCost> measure(test::IdleWorker& worker, std::chrono::seconds time) {
    worker.measure(settling_time);
    return worker.measure(time);
}

std::vector<test::ProcessCost> measureAtRest() {
    test::IdleWorker worker;
    return measure(worker, usual_time);
}

std::vector<test::ProcessCost> measureWith(int changesASecond, std::chrono::seconds time) {
    const SamplePage page(changingScript(changing_messages, changesASecond), changing_messages);
    test::IdleWorker worker(test::WebWorkerOptions().withUrl(page.url()), bench_chat);
    return measure(worker, time);
}

int print(const std::vector<test::ProcessCost>& costs) {
    std::printf("%-18s %10s %12s\n", "process", "PSS, MiB", "processor, %");
    for (const auto& cost : costs) print(cost);
    const auto sum = test::total(costs);
    print(sum);
    print({.name = "bound",
           .memory_mebibytes = test::most_memory_mebibytes,
           .processor_percent = test::most_processor_percent});
    const bool holds = sum.memory_mebibytes < test::most_memory_mebibytes &&
                       sum.processor_percent < test::most_processor_percent;
    return holds ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace
}  // namespace brindle::bench

int main(int count, char** arguments) {
    try {
        using namespace brindle::bench;
        if (count < 2) return print(measureAtRest());
        const auto time = count > 2 ? std::chrono::seconds(std::stoi(arguments[2])) : usual_time;
        return print(measureWith(std::stoi(arguments[1]), time));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return EXIT_FAILURE;
    }
}
