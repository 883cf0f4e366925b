#include "Files.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <system_error>

namespace fs = std::filesystem;
using nlohmann::json;

namespace files {
namespace {

constexpr int number_digits = 20;

void flush(int descriptor, const std::string& path) {
    if (::fsync(descriptor) != 0) throw Failure("write", path, errno);
}

/// A name is on the disk only when its directory is.
void flushDirectoryOf(const std::string& path) {
    const Descriptor directory(
        ::open(fs::path(path).parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.get() < 0) throw Failure("write", path, errno);
    flush(directory.get(), path);
}

void writeAll(int descriptor, const std::string& content, const std::string& path) {
    std::size_t written = 0;
    while (written < content.size()) {
        const auto count = ::write(descriptor, content.data() + written, content.size() - written);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) throw Failure("write", path, errno);
        written += static_cast<std::size_t>(count);
    }
}

/// A hidden file that goes unless it gets its name. The helper clears away those of this name that a killed
/// worker has left.
class TemporaryFile {
  public:
    explicit TemporaryFile(const std::string& target)
        : target_(target),
          path_((fs::path(target).parent_path() / ".brindle-XXXXXX").string()),
          descriptor_(::mkostemp(path_.data(), O_CLOEXEC)) {
        if (descriptor_.get() < 0) throw Failure("write", target_, errno);
    }
    ~TemporaryFile() {
        if (!isNamed_) ::unlink(path_.c_str());
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    int descriptor() const { return descriptor_.get(); }
    void giveName() {
        if (::rename(path_.c_str(), target_.c_str()) != 0) throw Failure("write", target_, errno);
        isNamed_ = true;
    }

  private:
    std::string target_;
    std::string path_;
    Descriptor descriptor_;
    bool isNamed_ = false;
};

bool isRecordName(const std::string& name) {
    return name.ends_with(".json");
}

bool isNumber(const std::string& text) {
    return !text.empty() && text.size() <= number_digits &&
           std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c) != 0; });
}

/// Enough for two files of one name not to meet.
std::string randomPrefix() {
    std::random_device random;
    std::array<char, 24> text{};
    std::snprintf(text.data(), text.size(), "%08X%08X-", random(), random());
    return text.data();
}

}  // namespace

Failure::Failure(const std::string& verb, const std::string& path, int error)
    : std::runtime_error("Cannot " + verb + " " + path + ": " +
                         std::error_code(error, std::generic_category()).message() + "."),
      error_(error) {}

Descriptor::~Descriptor() {
    if (number_ >= 0) ::close(number_);
}

void write(const std::string& path, const std::string& content, Flush how) {
    TemporaryFile file(path);
    writeAll(file.descriptor(), content, path);
    if (how == Flush::yes) flush(file.descriptor(), path);
    file.giveName();
    if (how == Flush::yes) flushDirectoryOf(path);
}

void writeRecord(const std::string& path, const json& record, Flush how) {
    constexpr int indentation = 2;
    // What is no valid text becomes a replacement character instead of an exception.
    write(path, record.dump(indentation, ' ', false, json::error_handler_t::replace) + "\n", how);
}

json readRecord(const std::string& path) {
    struct stat facts {};
    if (::stat(path.c_str(), &facts) != 0) throw Failure("read", path, errno);
    // A FIFO in the place of a file would be waited for.
    if (!S_ISREG(facts.st_mode)) throw Unusable("It is not a regular file.");
    errno = 0;
    std::ifstream file(path, std::ios::binary);
    const std::string content{std::istreambuf_iterator<char>(file), {}};
    if (!file.is_open() || file.bad()) throw Failure("read", path, errno);
    auto record = json::parse(content, nullptr, false);
    if (!record.is_object()) throw Unusable("It is not a JSON object.");
    return record;
}

std::string textOf(const json& record, const std::string& name) {
    const auto field = record.find(name);
    if (field == record.end() || !field->is_string())
        throw Unusable("Its " + name + " is missing or not a text.");
    return *field;
}

std::string optionalTextOf(const json& record, const std::string& name, const std::string& otherwise) {
    const auto field = record.find(name);
    return field == record.end() || field->is_null() ? otherwise : textOf(record, name);
}

std::vector<std::string> visibleNames(const std::string& directory) {
    std::vector<std::string> names;
    std::error_code error;
    fs::directory_iterator entry(directory, error);
    for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
        auto name = entry->path().filename().string();
        if (!name.starts_with('.')) names.push_back(std::move(name));
    }
    if (error) throw Failure("read", directory, error.value());
    std::sort(names.begin(), names.end());
    return names;
}

/// A long listing is read in portions and may show a later file without an earlier one. What stood before the
/// last one of a first listing is surely in the second.
std::vector<std::string> waitingRecords(const std::string& directory) {
    auto first = visibleNames(directory);
    std::erase_if(first, [](const std::string& name) { return !isRecordName(name); });
    if (first.empty()) return first;
    auto names = visibleNames(directory);
    std::erase_if(names, [&](const std::string& name) { return !isRecordName(name) || name > first.back(); });
    return names;
}

void move(const std::string& name, const std::string& fromDirectory, const std::string& toDirectory) {
    const auto source = (fs::path(fromDirectory) / name).string();
    auto target = fs::path(toDirectory) / name;
    std::error_code ignored;
    if (fs::exists(fs::symlink_status(target, ignored)))
        target = fs::path(toDirectory) / (randomPrefix() + name);
    if (::rename(source.c_str(), target.c_str()) != 0) throw Failure("move", source, errno);
}

std::string now() {
    const auto seconds = std::time(nullptr);
    std::tm parts{};
    ::gmtime_r(&seconds, &parts);
    std::array<char, 32> text{};
    std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text.data();
}

AscendingNames::AscendingNames(const std::string& directory, const std::string& ending) {
    for (const auto& name : visibleNames(directory)) {
        const auto number = name.substr(0, name.find(ending));
        if (number.size() != name.size() && isNumber(number)) last_ = std::max(last_, std::stoull(number));
    }
}

std::string AscendingNames::next() {
    const auto clock = std::chrono::system_clock::now().time_since_epoch();
    const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(clock).count();
    last_ = std::max(last_ + 1, static_cast<unsigned long long>(std::max<long long>(nanoseconds, 0)));
    auto digits = std::to_string(last_);
    // As text 10 sorts before 9, but not when both have the same number of digits.
    return digits.insert(0, number_digits - std::min<std::size_t>(digits.size(), number_digits), '0');
}

}  // namespace files
