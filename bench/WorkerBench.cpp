/// Starts the built-in web worker on the sample web client, lets it capture while nobody writes, and prints
/// what each process of its tree costs, beside the bounds.
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "support/WorkerCost.h"

namespace brindle {
namespace {

constexpr std::chrono::seconds settling_time{5};
constexpr std::chrono::seconds idle_time{20};

void print(const test::ProcessCost& cost) {
    std::printf("%-18s %10.1f %12.2f\n", cost.name.c_str(), cost.memory_mebibytes, cost.processor_percent);
}

int run() {
    test::IdleWorker idle;
    idle.measure(settling_time);
    const auto costs = idle.measure(idle_time);
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
}  // namespace brindle

int main() {
    try {
        return brindle::run();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return EXIT_FAILURE;
    }
}
