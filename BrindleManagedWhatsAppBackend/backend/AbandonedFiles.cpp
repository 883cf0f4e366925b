#include "backend/AbandonedFiles.h"

#include <chrono>
#include <vector>

#include "text/Failure.h"
#include "text/WithoutFailing.h"

namespace brindle {
namespace {

/// No writer takes so long.
constexpr std::chrono::minutes abandonment_age{1};

}  // namespace

void AbandonedFiles::begin() {
    suspects_.clear();
    // Into the other directories records are only moved.
    walk_.emplace(uses_.fileManager,
                  std::vector{uses_.directory.inbound, uses_.directory.outbound, uses_.directory.runtime});
}

void AbandonedFiles::lookAgain() {
    looksAgain_ = !suspects_.empty();
}

bool AbandonedFiles::step() noexcept {
    for (int count = 0; count < DirectoryWalk::entries_per_step && !isOver(); ++count) {
        // What cannot be seen or removed stays.
        withoutFailing([this] { advance(); });
    }
    return !isOver();
}

void AbandonedFiles::advance() {
    if (walk_) {
        if (const auto entry = walk_->next()) return look(*entry);
        walk_.reset();
        return;
    }
    const auto suspect = suspects_.extract(suspects_.begin());
    looksAgain_ = !suspects_.empty();
    lookAgainAt(suspect.key(), suspect.mapped());
}

void AbandonedFiles::look(const DirectoryWalk::Entry& entry) {
    if (!isTemporaryName(entry.name)) return;
    const auto file = uses_.fileManager.attributes(entry.path);
    if (!file || !file->isRegularFile) return;
    if (uses_.clock.now() - file->modification > abandonment_age) {
        uses_.fileManager.removeItem(entry.path);
    } else {
        suspects_.emplace(entry.path, *file);
    }
}

void AbandonedFiles::lookAgainAt(const std::string& path, const FileAttributes& before) {
    const auto file = uses_.fileManager.attributes(path);
    const bool isUntouched = file && file->device == before.device && file->inode == before.inode &&
                             file->modification == before.modification &&
                             file->statusChange == before.statusChange;
    if (isUntouched) uses_.fileManager.removeItem(path);
}

}  // namespace brindle
