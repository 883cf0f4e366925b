#include "support/TemporaryDirectory.h"

#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <system_error>
#include <thread>

#include "support/Waiting.h"

namespace brindle::test {
namespace {

constexpr const char* place_in_memory = "/dev/shm";

std::string base(TemporaryDirectory::Place place) {
    if (place == TemporaryDirectory::Place::memory && ::access(place_in_memory, W_OK) == 0)
        return place_in_memory;
    const char* configured = ::getenv("TMPDIR");
    // A relative one would mean another place to a process that starts in another directory.
    const bool isUsable =
        configured != nullptr && *configured == '/' && std::filesystem::is_directory(configured);
    return isUsable ? configured : "/tmp";
}

std::filesystem::path makeTemporaryDirectory(TemporaryDirectory::Place place) {
    std::string path = base(place) + "/brindle-test-XXXXXX";
    if (::mkdtemp(path.data()) == nullptr) throw TestFailure("mkdtemp " + path + ": " + std::strerror(errno));
    return path;
}

/// Whether nothing is left of it.
bool isRemoved(const std::filesystem::path& directory) {
    std::error_code error;
    std::filesystem::remove_all(directory, error);
    return !error;
}

}  // namespace

TemporaryDirectory::TemporaryDirectory(Place place) : path_(makeTemporaryDirectory(place)) {}

TemporaryDirectory::~TemporaryDirectory() {
    // What is made while the rest is being removed keeps the directory; its maker is about to end.
    constexpr int attempts = 100;
    constexpr std::chrono::milliseconds pause{10};
    for (int attempt = 0; attempt < attempts && !isRemoved(path_); ++attempt)
        std::this_thread::sleep_for(pause);
}

}  // namespace brindle::test
