#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "support/QuickFileManager.h"

namespace brindle::test {

/// The real file system with a fault in it: the Nth operation fails, once or from then on.
///
/// Only operations of the thread that set the fault are counted and fail, so that timers working at the same
/// time on other threads do not change which operation is the Nth.
class FaultInjectingFileManager final : public FileManager {
  public:
    enum class Persistence { once, fromThenOn };
    enum class Stage {
        /// The operation fails before it has done anything.
        beforeAnyEffect,
        /// An atomic write fails when its new content is complete and only the name is missing. Every other
        /// operation passes and is not counted.
        afterTemporaryFile,
        /// An atomic write fails before one of the pieces of its content. Pieces are what is counted; every
        /// other operation passes.
        beforeAPiece,
    };

    struct Fault {
        /// Counted from 1.
        int operation = 1;
        Persistence persistence = Persistence::once;
        /// The errno value.
        int code = 0;
        Stage stage = Stage::beforeAnyEffect;
        /// Every other kind of operation passes and is not counted; empty for all kinds.
        std::string action = {};
    };

    /// From now on counts this thread's operations and lets those fail that the fault names.
    void set(const Fault& fault);
    /// Everything works again.
    void clear();
    /// Whether the fault was met since it was set.
    bool wasMet() const;
    /// What this fault has let fail: "write /a/b".
    std::vector<std::string> failures() const;
    /// Everything that was asked for since the fault was set, on the thread that set it; a write that must
    /// reach the disk is "write through".
    std::vector<std::string> operations() const;

    void createDirectory(const std::string& path) override;
    void makePrivate(const std::string& directory) override;
    void requireAccess(const std::string& directory) override;
    std::unique_ptr<Directory> openDirectory(const std::string& path) override;
    std::unique_ptr<DirectoryWatch> makeDirectoryWatch() override;
    std::unique_ptr<DirectoryReader> readDirectory(const std::string& directory) override;
    std::uintmax_t fileSystemBytes(const std::string& path) override;
    bool fileExists(const std::string& path) override;
    bool isExecutableFile(const std::string& path) override;
    std::optional<FileAttributes> attributes(const std::string& path) override;
    std::string readLink(const std::string& path) override;
    std::string readFile(const std::string& path) override;
    void writeFileAtomically(const std::string& path, std::string_view bytes, Durability durability) override;
    void writePiecesAtomically(const std::string& path, const PieceGiver& give,
                               Durability durability) override;
    void moveItem(const std::string& from, const std::string& to) override;
    Descriptor lockDirectory(const std::string& path) override;
    void removeItem(const std::string& path) override;

    /// When the object at a path is said to have changed last, which cannot be set.
    void pretendStatusChange(const std::string& path, std::chrono::system_clock::time_point time) {
        const std::lock_guard hold(lock_);
        pretendedChanges_.insert_or_assign(path, time);
    }
    /// What every file system is said to hold; nothing for the truth.
    void pretendFileSystemBytes(std::optional<std::uintmax_t> bytes) { pretendedBytes_ = bytes; }

  private:
    class OpenDirectory;
    class Reader;
    class Watch;
    void record(std::string_view action, const std::string& path);
    bool mustFail(std::string_view action, const std::string& path, Stage stage);
    void failIfDue(std::string_view action, const std::string& path, Stage stage = Stage::beforeAnyEffect);
    void begin(std::string_view action, const std::string& path);
    FileAttributes pretended(const std::string& path, FileAttributes found) const;

    QuickFileManager real_;
    std::optional<std::uintmax_t> pretendedBytes_;
    std::map<std::string, std::chrono::system_clock::time_point> pretendedChanges_;
    mutable std::mutex lock_;
    std::optional<Fault> fault_;
    std::thread::id thread_;
    int count_ = 0;
    std::vector<std::string> failures_;
    std::vector<std::string> operations_;
};

}  // namespace brindle::test
