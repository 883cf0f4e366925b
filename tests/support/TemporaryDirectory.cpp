#include "support/TemporaryDirectory.h"

#include <stdlib.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <system_error>
#include <thread>

#include "support/Waiting.h"

namespace brindle::test {
namespace {

std::filesystem::path makeTemporaryDirectory() {
    const char* base = ::getenv("TMPDIR");
    // A relative one would mean another place to a process that starts in another directory.
    const bool isUsable = base != nullptr && *base == '/' && std::filesystem::is_directory(base);
    std::string path = std::string(isUsable ? base : "/tmp") + "/brindle-test-XXXXXX";
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

TemporaryDirectory::TemporaryDirectory() : path_(makeTemporaryDirectory()) {}

TemporaryDirectory::~TemporaryDirectory() {
    // What is made while the rest is being removed keeps the directory; its maker is about to end.
    constexpr int attempts = 100;
    constexpr std::chrono::milliseconds pause{10};
    for (int attempt = 0; attempt < attempts && !isRemoved(path_); ++attempt)
        std::this_thread::sleep_for(pause);
}

}  // namespace brindle::test
