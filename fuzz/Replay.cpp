/// Runs inputs that are known through a fuzzer's function: <name>_replay FILE|DIRECTORY...
/// Needs no fuzzing engine, so every preset can build it.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

using std::filesystem::path;

std::vector<path> inputsIn(const path& place) {
    if (!std::filesystem::is_directory(place)) return {place};
    std::vector<path> inputs;
    for (const auto& entry : std::filesystem::directory_iterator(place)) inputs.push_back(entry.path());
    std::sort(inputs.begin(), inputs.end());
    return inputs;
}

bool run(const path& input) {
    std::ifstream file(input, std::ios::binary);
    const std::vector<char> content{std::istreambuf_iterator<char>(file), {}};
    if (!file.is_open() || file.bad()) {
        std::fprintf(stderr, "%s cannot be read.\n", input.c_str());
        return false;
    }
    // Whatever follows the input's memory belongs to somebody else, which the sanitizer then notices.
    const std::vector<std::uint8_t> bytes(content.begin(), content.end());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    return true;
}

}  // namespace

int main(int argumentCount, char** arguments) {
    const std::vector<std::string> places(arguments + 1, arguments + argumentCount);
    std::size_t count = 0;
    for (const auto& place : places) {
        for (const auto& input : inputsIn(place)) {
            // Stays on the screen when the input ends the process.
            std::printf("%s\n", input.c_str());
            std::fflush(stdout);
            if (!run(input)) return EXIT_FAILURE;
            ++count;
        }
    }
    std::printf("%zu inputs keep every promise.\n", count);
    return count > 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
