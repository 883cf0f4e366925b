#include "Place.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "FileSystemType.h"
#include "support/Requests.h"
#include "system/Descriptor.h"

namespace brindle::bench {
namespace {

namespace fs = std::filesystem;

constexpr const char* names_of_directories[] = {"inbound",
                                                "outbound",
                                                "processed",
                                                "rejected",
                                                "runtime",
                                                "runtime/worker-processed-outbound",
                                                "runtime/worker-rejected-outbound"};

void require(bool succeeded, const std::string& what) {
    if (!succeeded) throw std::runtime_error("Cannot prepare a measurement: " + what + " failed.");
}

std::string paddedNumber(std::size_t number) {
    std::array<char, 24> text{};
    std::snprintf(text.data(), text.size(), "%08zu", number);
    return text.data();
}

void write(int directory, const std::string& name, const std::string& text) {
    const Descriptor file(::openat(directory, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    require(::write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()), name);
}

}  // namespace

std::string recordText(const std::string& messageId, const std::string& chat) {
    auto record = test::inboundRecord(
        messageId, "Good morning! The van is loaded, all of the banners are in it, even the long one.");
    record["conversationId"] = chat;
    record["conversationTitle"] = chat;
    return record.dump(2);
}

Place placeAt(const fs::path& directory) {
    fs::create_directories(directory);
    std::ifstream mounts("/proc/self/mountinfo");
    const std::string text{std::istreambuf_iterator<char>(mounts), {}};
    return {.directory = directory, .fileSystem = fileSystemOf(fs::canonical(directory), text)};
}

DataDirectory::DataDirectory(const Place& place) {
    std::string pattern = place.directory / "brindle-bench-XXXXXX";
    require(::mkdtemp(pattern.data()) != nullptr, pattern);
    scratch_ = pattern;
}

DataDirectory::~DataDirectory() {
    std::error_code ignored;
    fs::remove_all(scratch_, ignored);
}

void DataDirectory::make() const {
    require(::mkdir(path().c_str(), 0700) == 0, path());
    for (const char* name : names_of_directories) {
        require(::mkdir((path() / name).c_str(), 0700) == 0, name);
    }
}

void DataDirectory::fill(std::size_t records, const std::string& chat, const std::string& prefix) const {
    const Descriptor directory(::open((path() / "inbound").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    // Written out once, with a number of the same length in the places of the others.
    const auto pattern = paddedNumber(0);
    const auto text = recordText(prefix + pattern, chat);
    for (std::size_t number = 0; number < records; ++number) {
        const auto name = paddedNumber(number);
        auto record = text;
        for (auto at = record.find(pattern); at != std::string::npos;
             at = record.find(pattern, at + name.size()))
            record.replace(at, pattern.size(), name);
        write(directory.get(), prefix + name + ".json", record);
    }
    // What is still to be written down would be written while others are measured.
    require(::syncfs(directory.get()) == 0, "syncfs");
}

std::size_t DataDirectory::entriesIn(const char* name) const {
    return static_cast<std::size_t>(std::distance(fs::directory_iterator(path() / name), {}));
}

}  // namespace brindle::bench
