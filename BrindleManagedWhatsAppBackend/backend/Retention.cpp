#include "backend/Retention.h"

#include <errno.h>

#include <charconv>
#include <iterator>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "exchange/EnvironmentKeys.h"
#include "exchange/RecordFiles.h"
#include "system/FileSystemFailure.h"
#include "text/Failure.h"
#include "text/WithoutFailing.h"

namespace brindle {
namespace {

constexpr int most_days = 36500;
/// Refused records are kept so many times as long: somebody may want to know why.
constexpr int refused_factor = 10;
/// Delivered records take one part in so many of their file system, which is usually memory.
constexpr std::uintmax_t share_of_file_system = 10;
/// Clocks are corrected by less within an hour; by more they are set.
constexpr std::chrono::minutes clock_tolerance{1};

/// The directories of the delivered records come first.
constexpr std::size_t delivered_directories = 2;

std::chrono::nanoseconds offsetOf(const Clock& clock) {
    return clock.now().time_since_epoch() - clock.sinceBoot();
}

}  // namespace

RetentionSetting retentionSetting(const Environment& environment) {
    const RetentionPeriods defaults;
    const auto value = nonBlankValue(environment, environment_key::retention_days);
    if (!value) return {.periods = defaults, .problem = {}};
    int days = 0;
    const char* const valueEnd = value->data() + value->size();
    const auto [end, error] = std::from_chars(value->data(), valueEnd, days);
    if (error != std::errc() || end != valueEnd || value->starts_with('-') || days > most_days) {
        return {.periods = defaults,
                .problem = std::string(environment_key::retention_days) + " is \"" + *value +
                           "\", which is no whole number from 0 to " + std::to_string(most_days) +
                           "; delivered records are kept for " + std::to_string(defaults.delivered.count()) +
                           " days and refused ones for " + std::to_string(defaults.refused.count()) + "."};
    }
    if (days == 0) return {};
    return {.periods = RetentionPeriods{.delivered = std::chrono::days(days),
                                        .refused = std::chrono::days(days * refused_factor)},
            .problem = {}};
}

Retention::Retention(const Uses& uses)
    : uses_(uses), setting_(retentionSetting(uses.environment)), clockOffset_(offsetOf(uses.clock)) {}

bool Retention::hasClockBeenSet() {
    const auto offset = offsetOf(uses_.clock);
    const auto change = std::chrono::abs(offset - std::exchange(clockOffset_, offset));
    return change > clock_tolerance;
}

void Retention::begin() noexcept {
    withoutFailing([this] {
        end();
        if (!setting_.problem.empty()) uses_.log.write(std::exchange(setting_.problem, {}));
        if (!setting_.periods || hasClockBeenSet()) return;
        const auto& directory = uses_.directory;
        walk_.emplace(uses_.fileManager, std::vector{directory.processed, directory.workerProcessedOutbound,
                                                     directory.rejected, directory.workerRejectedOutbound});
        phase_ = Phase::expiry;
    });
}

void Retention::end() {
    phase_ = Phase::none;
    walk_.reset();
    candidates_.clear();
    candidateBytes_ = 0;
    deliveredBytes_ = 0;
    hasReported_ = false;
}

bool Retention::step() noexcept {
    if (phase_ != Phase::none && hasClockBeenSet()) end();
    for (int count = 0; count < DirectoryWalk::entries_per_step && phase_ != Phase::none; ++count) {
        withoutFailing([this] { advance(); }, [this](const std::exception& error) { report(error); });
    }
    return phase_ != Phase::none;
}

void Retention::advance() {
    switch (phase_) {
        case Phase::expiry:
            return expire();
        case Phase::choice:
            return choose();
        case Phase::reduction:
            return reduce();
        case Phase::none:
            return;
    }
}

/// The next entry, and what is known of it when it is a record. Ends the walk.
std::optional<DirectoryWalk::Entry> Retention::nextRecord(FileAttributes& attributes) {
    auto entry = walk_->next();
    if (!entry) {
        walk_.reset();
        return std::nullopt;
    }
    if (isHiddenName(entry->name) || !isRecordFileName(entry->name)) return std::nullopt;
    const auto found = uses_.fileManager.attributes(entry->path);
    if (!found || !found->isRegularFile) return std::nullopt;
    attributes = *found;
    return entry;
}

void Retention::expire() {
    FileAttributes file;
    const auto record = nextRecord(file);
    if (!walk_) return beginReduction();
    if (!record) return;
    const bool isDelivered = record->directory < delivered_directories;
    const auto age = uses_.clock.now() - file.statusChange;
    if (age > (isDelivered ? setting_.periods->delivered : setting_.periods->refused))
        return remove(record->path);
    if (isDelivered) deliveredBytes_ += file.allocatedBytes;
}

void Retention::beginReduction() {
    phase_ = Phase::none;
    const auto size = uses_.fileManager.fileSystemBytes(uses_.directory.processed);
    const auto share = size / share_of_file_system;
    // A file system without a bound knows no share of it.
    if (size == 0 || deliveredBytes_ <= share) return;
    excessBytes_ = deliveredBytes_ - share;
    walk_.emplace(uses_.fileManager,
                  std::vector{uses_.directory.processed, uses_.directory.workerProcessedOutbound});
    phase_ = Phase::choice;
}

/// Keeps the oldest records that together make up for the excess: only as many as are to go, and never a
/// whole directory, are kept in mind and in order.
void Retention::choose() {
    FileAttributes file;
    const auto record = nextRecord(file);
    if (!walk_) {
        phase_ = Phase::reduction;
        return;
    }
    if (!record) return;
    candidates_.insert({.arrival = file.statusChange, .path = record->path, .bytes = file.allocatedBytes});
    candidateBytes_ += file.allocatedBytes;
    while (candidateBytes_ - candidates_.rbegin()->bytes >= excessBytes_) {
        candidateBytes_ -= candidates_.rbegin()->bytes;
        candidates_.erase(std::prev(candidates_.end()));
    }
}

void Retention::reduce() {
    if (candidates_.empty()) return end();
    const auto oldest = candidates_.extract(candidates_.begin());
    remove(oldest.value().path);
}

void Retention::remove(const std::string& path) {
    if (uses_.isNeeded(path)) return;
    try {
        uses_.fileManager.removeItem(path);
    } catch (const FileSystemFailure& failure) {
        // Whoever else has tidied up was faster.
        if (failure.code() != ENOENT) throw;
    }
}

void Retention::report(const std::exception& error) noexcept {
    // A directory that has vanished holds nothing old; whoever needs it says that it is missing.
    const auto* failure = dynamic_cast<const FileSystemFailure*>(&error);
    if (failure != nullptr && failure->code() == ENOENT) return;
    if (std::exchange(hasReported_, true)) return;
    withoutFailing([&] { uses_.log.write("failed to remove old records: " + descriptionOf(error)); });
}

}  // namespace brindle
