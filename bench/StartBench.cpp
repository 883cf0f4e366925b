/// Compares the backend's start with that of a trivial C++ program, in turns within one run: the time from
/// the start of the process to its first line, and its resident memory then. Prints medians and their ratios.
#include <poll.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "exchange/EnvironmentKeys.h"
#include "system/ChildProcess.h"

namespace brindle {
namespace {

namespace key = environment_key;

constexpr int rounds = 101;

struct Sample {
    double milliseconds = 0;
    double residentKiB = 0;
};

double residentKiB(pid_t process) {
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    std::string word;
    double value = 0;
    while (status >> word) {
        if (word == "VmRSS:") status >> value;
    }
    return value;
}

Sample measure(const ChildProcess::Options& options) {
    const auto start = std::chrono::steady_clock::now();
    ChildProcess process(options);
    pollfd output{.fd = process.standardOutput().get(), .events = POLLIN, .revents = 0};
    while (::poll(&output, 1, -1) != 1) {
    }
    const std::chrono::duration<double, std::milli> elapsed = std::chrono::steady_clock::now() - start;
    const Sample sample{.milliseconds = elapsed.count(),
                        .residentKiB = residentKiB(process.processIdentifier())};
    process.standardInput().reset();
    process.waitForEnd();
    return sample;
}

double median(std::vector<Sample> samples, double Sample::*figure) {
    const auto middle = samples.begin() + static_cast<std::ptrdiff_t>(samples.size() / 2);
    std::nth_element(samples.begin(), middle, samples.end(),
                     [&](const Sample& a, const Sample& b) { return a.*figure < b.*figure; });
    return (*middle).*figure;
}

Environment backendEnvironment(const std::filesystem::path& directory) {
    const std::string token(40, 't');
    std::ofstream(directory / "token") << token;
    Environment environment = currentEnvironment();
    environment[std::string(key::launch_token)] = token;
    environment[std::string(key::launch_token_file)] = (directory / "token").string();
    environment[std::string(key::data_directory)] = (directory / "data").string();
    environment[std::string(key::disable_worker)] = "1";
    return environment;
}

int run() {
    std::string pattern = (std::filesystem::temp_directory_path() / "start-bench-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) return EXIT_FAILURE;
    const auto environment = backendEnvironment(pattern);
    std::vector<Sample> backend;
    std::vector<Sample> trivial;
    for (int round = 0; round < rounds; ++round) {
        trivial.push_back(measure({.executable = TRIVIAL_EXECUTABLE,
                                   .environment = environment,
                                   .standardInput = ChildProcess::StandardInput::pipe}));
        backend.push_back(measure({.executable = BACKEND_EXECUTABLE,
                                   .environment = environment,
                                   .standardInput = ChildProcess::StandardInput::pipe}));
    }
    std::filesystem::remove_all(pattern);
    const auto report = [&](const char* what, double Sample::*figure) {
        const double ours = median(backend, figure);
        const double theirs = median(trivial, figure);
        std::printf("%-28s backend %8.2f   trivial program %8.2f   ratio %.2f\n", what, ours, theirs,
                    ours / theirs);
    };
    report("start to first line, ms", &Sample::milliseconds);
    report("resident memory then, KiB", &Sample::residentKiB);
    return EXIT_SUCCESS;
}

}  // namespace
}  // namespace brindle

int main() {
    return brindle::run();
}
