#include "support/Files.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <fstream>
#include <system_error>
#include <utility>

#include "support/TemporaryDirectory.h"
#include "support/TextForms.h"
#include "support/Waiting.h"
#include "system/Descriptor.h"

namespace brindle::test {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t file_chunk_bytes = 64 * 1024;

void writeWithPermissions(const fs::path& file, std::string_view content, fs::perms added) {
    const auto temporary = file.parent_path() / ("." + file.filename().string() + "." + randomHex(8));
    {
        std::ofstream stream(temporary, std::ios::binary);
        stream.write(content.data(), static_cast<std::streamsize>(content.size()));
        if (!stream.flush()) throw TestFailure("cannot write " + temporary.string());
    }
    // Before the file has its name: whoever waits for a program may start it at once.
    fs::permissions(temporary, added, fs::perm_options::add);
    fs::rename(temporary, file);
}

/// Answers false when there is none, or when its owner goes in the middle, as with files below /proc.
bool read(const fs::path& file, std::string& content) {
    const Descriptor descriptor(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    if (!descriptor.isOpen()) return false;
    std::array<char, file_chunk_bytes> chunk;
    for (;;) {
        const auto length = ::read(descriptor.get(), chunk.data(), chunk.size());
        if (length < 0 && errno == EINTR) continue;
        if (length <= 0) return length == 0;
        content.append(chunk.data(), static_cast<std::size_t>(length));
    }
}

}  // namespace

std::string readFile(const fs::path& file) {
    std::string content;
    if (!read(file, content)) throw TestFailure("cannot read " + file.string());
    return content;
}

std::string contentOrNothing(const fs::path& file) {
    std::string content;
    return read(file, content) ? content : std::string();
}

Json readJsonFile(const fs::path& file) {
    const auto content = readFile(file);
    auto document = Json::parseIfPossible(content);
    if (!document) throw TestFailure(file.string() + " does not hold a JSON document: " + content);
    return std::move(*document);
}

void writeFileAtomically(const fs::path& file, std::string_view content) {
    writeWithPermissions(file, content, fs::perms::none);
}

fs::path writeProgram(const fs::path& file, std::string_view content) {
    writeWithPermissions(file, content, fs::perms::owner_all);
    return file;
}

fs::path writeScript(const fs::path& file, std::string_view body) {
    return writeProgram(file, "#!/bin/sh\n" + std::string(body) + "\n");
}

std::vector<std::string> namesIn(const fs::path& directory) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory)) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::string> visibleNamesIn(const fs::path& directory) {
    std::error_code error;
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory, error)) {
        auto name = entry.path().filename().string();
        if (!name.starts_with(".")) names.push_back(std::move(name));
    }
    std::sort(names.begin(), names.end());
    return names;
}

void makeVanish(const fs::path& directory) {
    const TemporaryDirectory elsewhere;
    std::error_code error;
    fs::rename(directory, elsewhere.path() / "vanished", error);
    if (error) throw TestFailure("cannot move " + directory.string() + " away: " + error.message());
}

}  // namespace brindle::test
