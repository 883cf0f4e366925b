#pragma once

#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "support/QuickFileManager.h"

namespace brindle::test {

/// A real file system on which the power goes: what was flushed is there afterwards, and what was not is
/// there as far as a test says. A message that is written through is flushed when the call returns, and with
/// it every name in its directory and the names that lead there, as file systems with a journal do it. Moves,
/// removals, other files and directories without a message are not. A move is one change: its file has the
/// old name or the new one.
class PowerLossFileManager final : public FileManager {
  public:
    /// How far the operation had come at which the power goes. Only a write has more than one stage; with the
    /// later ones only writes are counted.
    enum class Stage {
        /// Nothing has happened.
        beforeAnyEffect,
        /// A part of the new content lies in the hidden file.
        temporaryFile,
        /// The file has its name, but nothing of that is flushed.
        name,
    };
    /// What was not flushed, and became of it.
    enum class Unflushed {
        lost,
        /// Of all changes in a row every other one; never a later one of a file without its earlier ones.
        firstSurvives,
        secondSurvives,
        /// Names and moves; the content of files that were not flushed is gone, as some file systems do it.
        emptied,
        /// All of it, as after a kill.
        survives,
    };

    /// The power goes at that operation of this thread, counted from 1: it fails, and so does all that
    /// follows on any thread.
    void goAt(int operation, Stage stage);
    bool isGone() const;
    /// Ends the work and leaves on the disk what a reader finds after the next start of the machine.
    void comeBack(Unflushed unflushed);

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
    void moveItem(const std::string& from, const std::string& to) override;
    Descriptor lockDirectory(const std::string& path) override;
    void removeItem(const std::string& path) override;

  private:
    class OpenDirectory;
    /// What was done and not flushed.
    struct Change {
        std::vector<std::string> paths;
        std::function<void()> undo;
        /// A content that is not on the disk, either.
        bool isContent = false;
    };

    bool goesNow(Stage stage);
    void requirePower(std::string_view action, const std::string& path);
    void write(const std::string& path, std::string_view bytes, Durability durability, bool isFlushed);
    void flush(const std::string& directory);

    QuickFileManager real_;
    mutable std::mutex lock_;
    int operation_ = 0;
    Stage stage_ = Stage::beforeAnyEffect;
    std::thread::id thread_;
    int count_ = 0;
    bool isGone_ = false;
    std::vector<Change> changes_;
};

inline const std::vector<PowerLossFileManager::Stage> power_loss_stages{
    PowerLossFileManager::Stage::beforeAnyEffect, PowerLossFileManager::Stage::temporaryFile,
    PowerLossFileManager::Stage::name};
inline const std::vector<PowerLossFileManager::Unflushed> kinds_of_loss{
    PowerLossFileManager::Unflushed::lost, PowerLossFileManager::Unflushed::firstSurvives,
    PowerLossFileManager::Unflushed::secondSurvives, PowerLossFileManager::Unflushed::emptied,
    PowerLossFileManager::Unflushed::survives};
/// For the names of tests.
std::string nameOf(PowerLossFileManager::Stage stage);
std::string nameOf(PowerLossFileManager::Unflushed unflushed);

}  // namespace brindle::test
