#include <sys/statvfs.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <string>

#include "console/CommandWords.h"
#include "console/Doctor.h"
#include "console/Inbox.h"
#include "console/RuntimeStatus.h"
#include "console/Timestamps.h"
#include "exchange/DataDirectory.h"
#include "exchange/EnvironmentKeys.h"
#include "exchange/ExchangeRecords.h"
#include "exchange/WorkerProcessFile.h"
#include "system/LockHolder.h"
#include "system/Paths.h"
#include "system/ProcessFacts.h"
#include "system/Processes.h"
#include "text/Failure.h"
#include "text/Text.h"

namespace brindle::console {
namespace {

/// Less than this, and a message with a large attachment may not be stored any more.
constexpr std::uintmax_t least_free_bytes = std::uintmax_t{256} << 20U;
constexpr std::uintmax_t least_free_files = 1000;
/// A living helper writes its status every second.
constexpr std::chrono::seconds oldest_status_of_a_living_helper{15};
/// Clocks are coarse, and records have whole seconds.
constexpr std::chrono::seconds future_tolerance{5};

constexpr std::string_view directory_point = "directory";

Finding unusable(const Failure& failure) {
    return Finding::problem(directory_point, failure.what(), "The helper cannot work there either.",
                            "Mend what it says, or choose another directory.");
}

class DirectoryExamination {
  public:
    explicit DirectoryExamination(const Examination& examination)
        : examination_(examination),
          files_(examination.fileManager),
          directory_(examination.environment, files_, examination.platform) {}

    Findings run() {
        if (!files_.fileExists(directory_.path)) {
            return {absenceFinding()};
        }
        holder_ = directoryLockHolder(files_, directory_.path);
        Findings findings{permissionFinding(), helperFinding(), spaceFinding()};
        for (auto& each : {workerFileFinding(), statusFinding(), clockFinding(), waitingFinding(),
                           rejectedFinding(), outboundFinding()}) {
            if (each) findings.push_back(*each);
        }
        return findings;
    }

  private:
    /// A helper lists and writes there.
    void requireUsable(const std::string& directory) {
        const auto attributes = files_.attributes(directory);
        if (attributes && !attributes->isDirectory && !attributes->isSymbolicLink) {
            throw Failure(directory + " is no directory.");
        }
        files_.requireAccess(directory);
    }

    Finding absenceFinding() {
        std::string above = directory_.path;
        while (above.size() > 1 && !files_.fileExists(above)) {
            above.erase(std::max(above.rfind('/'), std::size_t{1}));
        }
        try {
            directory_.requireSafe(files_);
            requireUsable(above);
        } catch (const Failure& failure) {
            return unusable(failure);
        }
        return Finding::note(directory_point,
                             "The data directory " + directory_.path + " does not exist yet.",
                             "No helper has used it.", "Nothing; the helper makes it.");
    }

    /// What makes it, or a folder in it, of no use to a helper.
    std::optional<Finding> accessFinding() {
        for (const auto* each : {&directory_.path, &directory_.inbound, &directory_.outbound,
                                 &directory_.processed, &directory_.rejected, &directory_.runtime,
                                 &directory_.workerProcessedOutbound, &directory_.workerRejectedOutbound}) {
            try {
                if (files_.fileExists(*each)) requireUsable(*each);
            } catch (const Failure& failure) {
                return unusable(failure);
            }
        }
        return std::nullopt;
    }

    Finding permissionFinding() {
        try {
            directory_.requireSafe(files_);
            if (auto finding = accessFinding()) return std::move(*finding);
            return Finding::ok(directory_point,
                               "The data directory " + directory_.path + " is this user's alone.");
        } catch (const Failure& failure) {
            return Finding::problem(directory_point, failure.what(), "The helper refuses to start.",
                                    "chown and chmod go-w what is named, or choose another directory.");
        }
    }

    Finding helperFinding() const {
        constexpr std::string_view point = "use";
        if (!holder_) return Finding::ok(point, "No helper uses the data directory now.");
        return Finding::note(point,
                             "A helper (process " + std::to_string(*holder_) + ") uses the data directory.",
                             "Another one would wait five seconds and end with status 75.",
                             "Nothing, unless you want to start one here; then end that one first.");
    }

    Finding spaceFinding() const {
        constexpr std::string_view point = "space";
        constexpr std::string_view meaning =
            "Messages can no longer be stored; the helper tries again and again.";
        struct statvfs space {};
        if (::statvfs(directory_.path.c_str(), &space) != 0) {
            return Finding::note(point, "The system does not tell how much space is left.",
                                 "It may be short.", "Look with df.");
        }
        const auto freeBytes = static_cast<std::uintmax_t>(space.f_bavail) * space.f_frsize;
        const auto freeText = std::to_string(freeBytes >> 20U) + " MiB";
        if (freeBytes < least_free_bytes) {
            return Finding::problem(point, "Only " + freeText + " are left beside the data directory.",
                                    std::string(meaning), "Free some space, or move the data directory.");
        }
        // A file system without a fixed number of files names none at all.
        if (space.f_files > 0 && space.f_favail < least_free_files) {
            return Finding::problem(
                point,
                "Only " + std::to_string(space.f_favail) + " more files fit beside the data directory.",
                std::string(meaning), "Remove files, or move the data directory.");
        }
        return Finding::ok(point, freeText + " are left beside the data directory.");
    }

    std::optional<Finding> workerFileFinding() {
        constexpr std::string_view point = "worker.pid";
        if (!files_.fileExists(directory_.workerPIDFile)) return std::nullopt;
        const auto process = recordedWorker();
        if (!process) {
            return Finding::problem(
                point, directory_.workerPIDFile + " holds no process id.",
                "A worker that a killed helper leaves cannot be found.",
                "Let the worker write its process id in decimal digits, and nothing else.");
        }
        const auto name = "process " + std::to_string(*process);
        if (!processExists(*process)) {
            return Finding::note(
                point, "The worker that wrote worker.pid (" + name + ") does not run any more.",
                "It was killed, or left without clearing up.", "Nothing; the next helper removes the file.");
        }
        if (holder_) return Finding::ok(point, "The worker (" + name + ") runs.");
        const auto data = nonBlankValue(environmentOf(*process, files_), environment_key::data_directory);
        if (!data || standardizedPath(*data) != directory_.path) {
            return Finding::note(
                point, "worker.pid names a process that is no worker of this directory (" + name + ").",
                "The worker was killed, and its number is another's by now.",
                "Nothing; the next helper removes the file and spares the process.");
        }
        return Finding::problem(point, "The worker (" + name + ") runs, and no helper does.",
                                "A killed helper has left it; it may still take messages.",
                                "Start a helper here, which ends it, or end it yourself.");
    }

    /// Neither a group of processes nor the first one can be a worker.
    std::optional<pid_t> recordedWorker() {
        const auto process = recordedWorkerProcess(files_, directory_);
        return process && *process > 1 ? process : std::nullopt;
    }

    std::optional<Finding> statusFinding() {
        constexpr std::string_view point = "status";
        if (!holder_) return std::nullopt;
        const auto status = readableStatus(files_, directory_.runtimeStatusFile);
        if (!status) {
            return Finding::problem(point, directory_.runtimeStatusFile + " cannot be read as a status.",
                                    "Whoever watches the helper sees nothing.",
                                    "Look at the helper's standard error for the reason.");
        }
        const auto updated = parsedTimestamp(status->updatedAtISO8601);
        const auto age = updated ? examination_.clock.now() - *updated : std::chrono::hours(0);
        if (updated && age > oldest_status_of_a_living_helper) {
            return Finding::problem(
                point, "The helper wrote its status " + shortDuration(age) + " ago.",
                "It writes every second as long as it lives: it is stuck, or cannot write.",
                "Look at its standard error and at the disk, then start it anew.");
        }
        if (!workerObstacle(*status).empty() && status->workerState != "not_configured") {
            return Finding::problem(
                point, "No worker runs: " + status->workerDetail.value_or(status->workerState),
                "No message comes in and none is sent.", "Mend what it says, then start the helper anew.");
        }
        return Finding::ok(point, "The helper is " + status->connectionState + ", its worker's state is \"" +
                                      status->workerState + "\".");
    }

    std::optional<Finding> clockFinding() {
        constexpr std::string_view point = "clock";
        const auto attributes = files_.attributes(directory_.runtime);
        const auto now = examination_.clock.now();
        if (attributes && attributes->modification > now + future_tolerance) {
            return Finding::problem(
                point,
                "Files were written " + shortDuration(attributes->modification - now) +
                    " from now, by the clock.",
                "The clock was set back: times in messages and ages of files are wrong until then.",
                "Set the clock, for example by NTP.");
        }
        return Finding::ok(point, "The clock says " + iso8601(now) + ".");
    }

    std::optional<Finding> waitingFinding() {
        constexpr std::string_view point = "inbound";
        std::size_t waiting = 0;
        std::size_t undecodable = 0;
        try {
            for (const auto& name : recordNames(files_, directory_.inbound)) {
                const auto file = joinedPath(directory_.inbound, name);
                const bool isUsable = isDecodable(file);
                // A helper that delivers moves records while they are looked at.
                if (!isUsable && !files_.attributes(file)) continue;
                ++waiting;
                if (!isUsable) ++undecodable;
            }
        } catch (const Failure&) {
            // A folder that is not there yet holds nothing.
            return std::nullopt;
        }
        if (undecodable > 0) {
            return Finding::problem(
                point, std::to_string(undecodable) + " waiting inbound file(s) cannot be decoded.",
                "The helper will set them aside in rejected; their messages do not arrive.",
                inboxCommand() + " shows the reason of each; correct the worker.");
        }
        if (waiting == 0) return Finding::ok(point, "No inbound message waits.");
        return Finding::note(point, std::to_string(waiting) + " inbound message(s) wait.",
                             "They belong to chats that nobody listens to, or no helper runs.",
                             "Nothing; listen to their chat to have them.");
    }

    bool isDecodable(const std::string& file) {
        try {
            readRecord<ManagedWhatsAppInboundRecord>(files_, file);
            return true;
        } catch (const Failure&) {
            return false;
        }
    }

    /// With the directory: without it the command refuses, or looks elsewhere.
    std::string inboxCommand() const {
        return "BrindleBridgeConsole inbox --data-dir " + quotedWord(directory_.path);
    }

    std::optional<Finding> rejectedFinding() {
        const auto count = recordsIn(directory_.rejected);
        if (count == 0) return std::nullopt;
        return Finding::problem("rejected", std::to_string(count) + " inbound file(s) were rejected.",
                                "Their messages did not arrive; they are kept for thirty days.",
                                inboxCommand() + " shows the reason of each, and can put one back.");
    }

    std::optional<Finding> outboundFinding() {
        const auto count = recordsIn(directory_.outbound);
        if (count == 0) return std::nullopt;
        return Finding::note("outbound", std::to_string(count) + " message(s) wait to be sent.",
                             "No worker that sends has taken them yet; the built-in one never does.",
                             "Run a native worker that sends, or remove them.");
    }

    std::size_t recordsIn(const std::string& directory) {
        try {
            return recordNames(files_, directory).size();
        } catch (const Failure&) {
            return 0;
        }
    }

    const Examination& examination_;
    FileManager& files_;
    DataDirectory directory_;
    std::optional<pid_t> holder_;
};

}  // namespace

Findings examinedDirectory(const Examination& examination) {
    try {
        return DirectoryExamination(examination).run();
    } catch (const Failure& failure) {
        return {unusable(failure)};
    }
}

}  // namespace brindle::console
