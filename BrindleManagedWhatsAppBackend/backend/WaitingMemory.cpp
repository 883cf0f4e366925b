#include "backend/WaitingMemory.h"

#include <algorithm>
#include <utility>

#include "system/FileSystemFailure.h"

namespace brindle {
namespace {

/// Those of an entry that can be asked; whoever then reads it hears why others cannot.
std::optional<FileAttributes> attributesOf(Directory& directory, const DirectoryEntry& entry) {
    try {
        return directory.attributesOf(entry.name);
    } catch (const FileSystemFailure&) {
        return std::nullopt;
    }
}

}  // namespace

std::optional<WaitingMemory::Pass> WaitingMemory::beginPass(const BridgeScope& scope, Directory& inbound) {
    if (!isOf(scope)) {
        forget();
        scope_ = scope;
    }
    // The times come first, so that whatever changes while they are compared counts as young.
    const auto now = clock_.now();
    const auto sinceBoot = clock_.sinceBoot();
    const auto attributes = inbound.attributes();
    const DirectoryState directory{.device = attributes.device,
                                   .inode = attributes.inode,
                                   .modification = attributes.modification,
                                   .statusChange = attributes.statusChange};
    if (lastCompletePass_ && lastCompletePass_->directory == directory &&
        sinceBoot - lastCompletePass_->beginningSinceBoot < full_pass_interval) {
        return std::nullopt;
    }
    lastCompletePass_.reset();
    Pass pass(directory, now, sinceBoot);
    pass.left_.reserve(known_.size());
    return pass;
}

bool WaitingMemory::isKnown(Pass& pass, Directory& inbound, const DirectoryEntry& record) const {
    const auto candidate =
        std::lower_bound(known_.begin(), known_.end(), record.inode,
                         [](const Known& known, ino_t inode) { return known.inode < inode; });
    if (!record.isRegularFile || candidate == known_.end() || candidate->inode != record.inode) return false;
    const auto attributes = attributesOf(inbound, record);
    if (!attributes || !attributes->isRegularFile) return false;
    const Known found{.inode = attributes->inode,
                      .device = attributes->device,
                      .bytes = attributes->bytes,
                      .statusChange = attributes->statusChange};
    if (!std::binary_search(candidate, known_.end(), found)) return false;
    ++pass.leftInPlace_;
    pass.left_.push_back(found);
    return true;
}

void WaitingMemory::leave(Pass& pass, const DirectoryEntry& record, const FileAttributes& attributes) {
    ++pass.leftInPlace_;
    // What a link leads to can change without the link.
    if (!record.isRegularFile || attributes.statusChange + settling_time > pass.beginning_)
        return pass.miss();
    pass.left_.push_back({.inode = attributes.inode,
                          .device = attributes.device,
                          .bytes = attributes.bytes,
                          .statusChange = attributes.statusChange});
}

void WaitingMemory::endPass(Pass pass) noexcept {
    std::sort(pass.left_.begin(), pass.left_.end());
    known_ = std::move(pass.left_);
    leftInPlace_ = pass.leftInPlace_;
    if (pass.isComplete_ && pass.directory_.statusChange + settling_time <= pass.beginning_) {
        lastCompletePass_ = {.directory = pass.directory_, .beginningSinceBoot = pass.beginningSinceBoot_};
    }
}

void WaitingMemory::forget() {
    scope_.reset();
    leftInPlace_ = 0;
    lastCompletePass_.reset();
    // Assigning an empty one would keep the memory.
    std::vector<Known>().swap(known_);
}

}  // namespace brindle
