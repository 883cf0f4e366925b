#include "support/PowerLossFileManager.h"

#include <errno.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <system_error>
#include <utility>

#include "support/Files.h"
#include "system/FileSystemFailure.h"

namespace brindle::test {
namespace {

namespace fs = std::filesystem;

void put(const std::string& path, std::string_view content) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

/// Makes the file what it was.
std::function<void()> restoring(const std::string& path) {
    if (!fs::exists(path)) return [path] { fs::remove(path); };
    return [path, content = readFile(path)] { put(path, content); };
}

bool survives(PowerLossFileManager::Unflushed unflushed, std::size_t number) {
    using Unflushed = PowerLossFileManager::Unflushed;
    if (unflushed == Unflushed::lost) return false;
    if (unflushed == Unflushed::firstSurvives) return number % 2 == 0;
    if (unflushed == Unflushed::secondSurvives) return number % 2 == 1;
    return true;
}

}  // namespace

std::string nameOf(PowerLossFileManager::Stage stage) {
    using Stage = PowerLossFileManager::Stage;
    if (stage == Stage::temporaryFile) return "InATemporaryFile";
    return stage == Stage::name ? "BeforeTheNameIsFlushed" : "BetweenOperations";
}

std::string nameOf(PowerLossFileManager::Unflushed unflushed) {
    using Unflushed = PowerLossFileManager::Unflushed;
    if (unflushed == Unflushed::lost) return "AllLost";
    if (unflushed == Unflushed::firstSurvives) return "FirstSurvives";
    if (unflushed == Unflushed::secondSurvives) return "SecondSurvives";
    return unflushed == Unflushed::emptied ? "Emptied" : "AllSurvives";
}

void PowerLossFileManager::goAt(int operation, Stage stage) {
    const std::lock_guard hold(lock_);
    operation_ = operation;
    stage_ = stage;
    thread_ = std::this_thread::get_id();
    count_ = 0;
}

bool PowerLossFileManager::isGone() const {
    const std::lock_guard hold(lock_);
    return isGone_;
}

void PowerLossFileManager::comeBack(Unflushed unflushed) {
    const std::lock_guard hold(lock_);
    isGone_ = true;
    std::set<std::string> settled;
    for (std::size_t number = changes_.size(); number-- > 0;) {
        const Change& change = changes_[number];
        const bool isSettled = std::any_of(change.paths.begin(), change.paths.end(),
                                           [&](const auto& path) { return settled.contains(path); });
        if (!isSettled && !survives(unflushed, number)) {
            change.undo();
            continue;
        }
        settled.insert(change.paths.begin(), change.paths.end());
        const auto& path = change.paths.front();
        if (unflushed == Unflushed::emptied && change.isContent && fs::exists(path)) put(path, "");
    }
    changes_.clear();
}

bool PowerLossFileManager::goesNow(Stage stage) {
    if (isGone_ || stage != stage_ || std::this_thread::get_id() != thread_) return isGone_;
    isGone_ = ++count_ == operation_;
    return isGone_;
}

void PowerLossFileManager::requirePower(std::string_view action, const std::string& path) {
    if (goesNow(Stage::beforeAnyEffect)) throw FileSystemFailure(action, path, EIO);
}

void PowerLossFileManager::createDirectory(const std::string& path) {
    const std::lock_guard hold(lock_);
    requirePower("create the directory", path);
    const bool isNew = !fs::exists(path);
    real_.createDirectory(path);
    if (!isNew) return;
    changes_.push_back({.paths = {path}, .undo = [path] {
                            std::error_code ignored;
                            fs::remove(path, ignored);
                        }});
}

void PowerLossFileManager::makePrivate(const std::string& directory) {
    const std::lock_guard hold(lock_);
    requirePower("make private", directory);
    real_.makePrivate(directory);
}

void PowerLossFileManager::requireAccess(const std::string& directory) {
    const std::lock_guard hold(lock_);
    requirePower("use the directory", directory);
    real_.requireAccess(directory);
}

/// Nothing works in it, either, once the power has gone.
class PowerLossFileManager::OpenDirectory final : public Directory {
  public:
    OpenDirectory(PowerLossFileManager& files, std::string path)
        : files_(files), path_(std::move(path)), real_(files.real_.openDirectory(path_)) {}

    FileAttributes attributes() override {
        const std::lock_guard hold(files_.lock_);
        files_.requirePower("look at", path_);
        return real_->attributes();
    }
    DirectoryListing list() override {
        const std::lock_guard hold(files_.lock_);
        files_.requirePower("list", path_);
        return real_->list();
    }
    std::optional<FileAttributes> attributesOf(const std::string& name) override {
        const std::lock_guard hold(files_.lock_);
        files_.requirePower("look at", path_ + "/" + name);
        return real_->attributesOf(name);
    }
    FileAttributes readFile(const DirectoryEntry& entry, std::string& content) override {
        const std::lock_guard hold(files_.lock_);
        files_.requirePower("read", path_ + "/" + entry.name);
        return real_->readFile(entry, content);
    }
    void moveItem(const std::string& name, const std::string& to) override {
        files_.moveItem(path_ + "/" + name, to);
    }

  private:
    PowerLossFileManager& files_;
    std::string path_;
    std::unique_ptr<Directory> real_;
};

std::unique_ptr<Directory> PowerLossFileManager::openDirectory(const std::string& path) {
    const std::lock_guard hold(lock_);
    requirePower("list", path);
    return std::make_unique<OpenDirectory>(*this, path);
}

std::unique_ptr<DirectoryWatch> PowerLossFileManager::makeDirectoryWatch() {
    return real_.makeDirectoryWatch();
}

std::unique_ptr<DirectoryReader> PowerLossFileManager::readDirectory(const std::string& directory) {
    const std::lock_guard hold(lock_);
    requirePower("list", directory);
    return real_.readDirectory(directory);
}

std::uintmax_t PowerLossFileManager::fileSystemBytes(const std::string& path) {
    const std::lock_guard hold(lock_);
    requirePower("look at", path);
    return real_.fileSystemBytes(path);
}

bool PowerLossFileManager::fileExists(const std::string& path) {
    const std::lock_guard hold(lock_);
    return !goesNow(Stage::beforeAnyEffect) && real_.fileExists(path);
}

bool PowerLossFileManager::isExecutableFile(const std::string& path) {
    const std::lock_guard hold(lock_);
    return !goesNow(Stage::beforeAnyEffect) && real_.isExecutableFile(path);
}

std::optional<FileAttributes> PowerLossFileManager::attributes(const std::string& path) {
    const std::lock_guard hold(lock_);
    requirePower("look at", path);
    return real_.attributes(path);
}

std::string PowerLossFileManager::readLink(const std::string& path) {
    const std::lock_guard hold(lock_);
    requirePower("follow the link", path);
    return real_.readLink(path);
}

std::string PowerLossFileManager::readFile(const std::string& path) {
    const std::lock_guard hold(lock_);
    requirePower("read", path);
    return real_.readFile(path);
}

void PowerLossFileManager::writeFileAtomically(const std::string& path, std::string_view bytes,
                                               Durability durability) {
    const std::lock_guard hold(lock_);
    requirePower("write", path);
    if (goesNow(Stage::temporaryFile)) {
        put(fs::path(path).parent_path() / ".brindle-abcdef", bytes.substr(0, bytes.size() / 2));
        throw FileSystemFailure("write", path, EIO);
    }
    const bool goesBeforeTheFlush = goesNow(Stage::name);
    write(path, bytes, durability, durability == Durability::disk && !goesBeforeTheFlush);
    if (goesBeforeTheFlush) throw FileSystemFailure("write", path, EIO);
}

void PowerLossFileManager::write(const std::string& path, std::string_view bytes, Durability durability,
                                 bool isFlushed) {
    Change change{.paths = {path}, .undo = restoring(path), .isContent = durability == Durability::process};
    real_.writeFileAtomically(path, bytes, durability);
    if (isFlushed) return flush(fs::path(path).parent_path());
    changes_.push_back(std::move(change));
}

void PowerLossFileManager::flush(const std::string& directory) {
    const auto isFlushed = [&](const fs::path& path) {
        return path.parent_path() == directory || (directory + "/").starts_with(path.string() + "/");
    };
    std::erase_if(changes_, [&](const Change& change) {
        return std::any_of(change.paths.begin(), change.paths.end(), isFlushed);
    });
}

void PowerLossFileManager::moveItem(const std::string& from, const std::string& to) {
    const std::lock_guard hold(lock_);
    requirePower("move", from);
    real_.moveItem(from, to);
    changes_.push_back({.paths = {from, to}, .undo = [from, to] { fs::rename(to, from); }});
}

Descriptor PowerLossFileManager::lockDirectory(const std::string& path) {
    const std::lock_guard hold(lock_);
    requirePower("lock", path);
    return real_.lockDirectory(path);
}

void PowerLossFileManager::removeItem(const std::string& path) {
    const std::lock_guard hold(lock_);
    requirePower("remove", path);
    Change change{.paths = {path}, .undo = restoring(path)};
    real_.removeItem(path);
    changes_.push_back(std::move(change));
}

}  // namespace brindle::test
