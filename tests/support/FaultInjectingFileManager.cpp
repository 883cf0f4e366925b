#include "support/FaultInjectingFileManager.h"

#include "support/Files.h"
#include "system/FileSystemFailure.h"
#include "system/Paths.h"

namespace brindle::test {

void FaultInjectingFileManager::set(const Fault& fault) {
    const std::lock_guard hold(lock_);
    fault_ = fault;
    thread_ = std::this_thread::get_id();
    count_ = 0;
    failures_.clear();
    operations_.clear();
}

void FaultInjectingFileManager::clear() {
    const std::lock_guard hold(lock_);
    fault_.reset();
}

bool FaultInjectingFileManager::wasMet() const {
    const std::lock_guard hold(lock_);
    return !failures_.empty();
}

std::vector<std::string> FaultInjectingFileManager::failures() const {
    const std::lock_guard hold(lock_);
    return failures_;
}

std::vector<std::string> FaultInjectingFileManager::operations() const {
    const std::lock_guard hold(lock_);
    return operations_;
}

void FaultInjectingFileManager::record(std::string_view action, const std::string& path) {
    const std::lock_guard hold(lock_);
    if (!fault_ || thread_ != std::this_thread::get_id()) return;
    operations_.push_back(std::string(action).append(" ").append(path));
}

bool FaultInjectingFileManager::mustFail(std::string_view action, const std::string& path, Stage stage) {
    const std::lock_guard hold(lock_);
    if (!fault_ || thread_ != std::this_thread::get_id()) return false;
    if (fault_->stage != stage || (!fault_->action.empty() && fault_->action != action)) return false;
    ++count_;
    const bool isDue =
        fault_->persistence == Persistence::once ? count_ == fault_->operation : count_ >= fault_->operation;
    if (isDue) failures_.push_back(std::string(action).append(" ").append(path));
    return isDue;
}

void FaultInjectingFileManager::failIfDue(std::string_view action, const std::string& path, Stage stage) {
    if (mustFail(action, path, stage)) throw FileSystemFailure(action, path, fault_->code);
}

void FaultInjectingFileManager::begin(std::string_view action, const std::string& path) {
    record(action, path);
    failIfDue(action, path);
}

FileAttributes FaultInjectingFileManager::pretended(const std::string& path, FileAttributes found) const {
    const std::lock_guard hold(lock_);
    const auto change = pretendedChanges_.find(path);
    if (change != pretendedChanges_.end()) found.statusChange = change->second;
    return found;
}

void FaultInjectingFileManager::createDirectory(const std::string& path) {
    begin("create the directory", path);
    real_.createDirectory(path);
}

void FaultInjectingFileManager::makePrivate(const std::string& directory) {
    record("make private", directory);
    failIfDue("make private", directory);
    real_.makePrivate(directory);
}

void FaultInjectingFileManager::requireAccess(const std::string& directory) {
    record("use the directory", directory);
    failIfDue("use the directory", directory);
    real_.requireAccess(directory);
}

/// What is done in an open directory counts and fails as what is done by path. The attributes of the
/// directory itself have a name of their own.
class FaultInjectingFileManager::OpenDirectory final : public Directory {
  public:
    OpenDirectory(FaultInjectingFileManager& files, std::string path)
        : files_(files), path_(std::move(path)), real_(files.real_.openDirectory(path_)) {}

    FileAttributes attributes() override {
        files_.begin("look into", path_);
        return files_.pretended(path_, real_->attributes());
    }
    DirectoryListing list() override {
        files_.record("list on", path_);
        files_.failIfDue("list", path_);
        return real_->list();
    }
    std::optional<FileAttributes> attributesOf(const std::string& name) override {
        files_.begin("look at", joinedPath(path_, name));
        auto found = real_->attributesOf(name);
        if (found) found = files_.pretended(joinedPath(path_, name), *found);
        return found;
    }
    FileAttributes readFile(const DirectoryEntry& entry, std::string& content) override {
        files_.begin("read", joinedPath(path_, entry.name));
        return files_.pretended(joinedPath(path_, entry.name), real_->readFile(entry, content));
    }
    void moveItem(const std::string& name, const std::string& to) override {
        files_.begin("move", joinedPath(path_, name));
        real_->moveItem(name, to);
    }

  private:
    FaultInjectingFileManager& files_;
    std::string path_;
    std::unique_ptr<Directory> real_;
};

std::unique_ptr<Directory> FaultInjectingFileManager::openDirectory(const std::string& path) {
    begin("list", path);
    return std::make_unique<OpenDirectory>(*this, path);
}

/// To follow a directory can fail as well.
class FaultInjectingFileManager::Watch final : public DirectoryWatch {
  public:
    explicit Watch(FaultInjectingFileManager& files)
        : files_(files), real_(files.real_.makeDirectoryWatch()) {}

    bool follow(const std::string& path) override {
        files_.begin("watch", path);
        return real_->follow(path);
    }
    int descriptor() const override { return real_->descriptor(); }
    DirectoryNews takeNews() override { return real_->takeNews(); }

  private:
    FaultInjectingFileManager& files_;
    std::unique_ptr<DirectoryWatch> real_;
};

std::unique_ptr<DirectoryWatch> FaultInjectingFileManager::makeDirectoryWatch() {
    begin("watch", "directories");
    return std::make_unique<Watch>(*this);
}

/// Fails when its turn comes, as everything else does.
class FaultInjectingFileManager::Reader final : public DirectoryReader {
  public:
    Reader(FaultInjectingFileManager& files, std::string directory)
        : files_(files), directory_(std::move(directory)), real_(files.real_.readDirectory(directory_)) {}

    std::optional<std::string> next() override {
        files_.record("list on", directory_);
        files_.failIfDue("list", directory_);
        return real_->next();
    }

  private:
    FaultInjectingFileManager& files_;
    std::string directory_;
    std::unique_ptr<DirectoryReader> real_;
};

std::unique_ptr<DirectoryReader> FaultInjectingFileManager::readDirectory(const std::string& directory) {
    begin("list", directory);
    return std::make_unique<Reader>(*this, directory);
}

std::uintmax_t FaultInjectingFileManager::fileSystemBytes(const std::string& path) {
    begin("look at", path);
    return pretendedBytes_ ? *pretendedBytes_ : real_.fileSystemBytes(path);
}

// The two questions have no way to fail but to answer no.
bool FaultInjectingFileManager::fileExists(const std::string& path) {
    record("look for", path);
    return !mustFail("look for", path, Stage::beforeAnyEffect) && real_.fileExists(path);
}

bool FaultInjectingFileManager::isExecutableFile(const std::string& path) {
    record("look for", path);
    return !mustFail("look for", path, Stage::beforeAnyEffect) && real_.isExecutableFile(path);
}

std::optional<FileAttributes> FaultInjectingFileManager::attributes(const std::string& path) {
    begin("look at", path);
    auto found = real_.attributes(path);
    if (found) found = pretended(path, *found);
    return found;
}

std::string FaultInjectingFileManager::readLink(const std::string& path) {
    begin("follow the link", path);
    return real_.readLink(path);
}

std::string FaultInjectingFileManager::readFile(const std::string& path) {
    begin("read", path);
    return real_.readFile(path);
}

void FaultInjectingFileManager::writeFileAtomically(const std::string& path, std::string_view bytes,
                                                    Durability durability) {
    writePiecesAtomically(
        path, [&](const PieceTaker& take) { take(bytes); }, durability);
}

void FaultInjectingFileManager::writePiecesAtomically(const std::string& path, const PieceGiver& give,
                                                      Durability durability) {
    record(durability == Durability::disk ? "write through" : "write", path);
    failIfDue("write", path);
    if (mustFail("write", path, Stage::afterTemporaryFile)) {
        // What a crash at this point would leave behind: a complete hidden file that never got its name.
        const auto slash = path.rfind('/');
        real_.writePiecesAtomically(path.substr(0, slash + 1) + ".brindle-fault", give, durability);
        throw FileSystemFailure("write", path, fault_->code);
    }
    const auto giveUnlessDue = [&](const PieceTaker& take) {
        give([&](std::string_view piece) {
            failIfDue("write", path, Stage::beforeAPiece);
            take(piece);
        });
    };
    real_.writePiecesAtomically(path, giveUnlessDue, durability);
}

void FaultInjectingFileManager::moveItem(const std::string& from, const std::string& to) {
    begin("move", from);
    real_.moveItem(from, to);
}

Descriptor FaultInjectingFileManager::lockDirectory(const std::string& path) {
    begin("lock", path);
    return real_.lockDirectory(path);
}

void FaultInjectingFileManager::removeItem(const std::string& path) {
    begin("remove", path);
    real_.removeItem(path);
}

}  // namespace brindle::test
