#include "console/Doctor.h"

#include <iterator>

#include "exchange/EnvironmentKeys.h"
#include "exchange/NativeWorkerName.h"
#include "system/FileSystemFailure.h"
#include "system/Paths.h"

namespace brindle::console {
namespace {

namespace key = environment_key;

void append(Findings& all, Findings more) {
    all.insert(all.end(), std::make_move_iterator(more.begin()), std::make_move_iterator(more.end()));
}

Finding helperFinding(const Examination& examination) {
    constexpr std::string_view point = "helper";
    if (examination.fileManager.isExecutableFile(examination.helper)) {
        return Finding::ok(point, "The helper " + examination.helper + " can be run.");
    }
    return Finding::problem(point, "There is no program " + examination.helper + ".",
                            "Nothing can be started.",
                            "Install the helper again, or name it with --helper PATH.");
}

Finding programFinding(const Examination& examination, std::string_view kind, const std::string& path,
                       std::string_view variable) {
    constexpr std::string_view point = "worker";
    if (examination.fileManager.isExecutableFile(path)) {
        return Finding::ok(point, "The " + std::string(kind) + " " + path + " can be run.");
    }
    const bool exists = examination.fileManager.fileExists(path);
    return Finding::problem(
        point,
        "The configured " + std::string(kind) + " " + path +
            (exists ? " may not be executed." : " does not exist."),
        "The helper runs without a worker: no message comes in and none is sent.",
        (exists ? "Make it executable (chmod +x), or correct " : "Install it, or correct ") +
            std::string(variable) + ".");
}

/// A native worker that the helper finds by itself.
std::string nativeWorkerBeside(const std::string& helper) {
    return standardizedPath(joinedPath(joinedPath(helper, ".."), native_worker_name));
}

bool nativeWorkerIsOff(const Environment& environment) {
    return isFlagSet(environment, key::disable_native_worker) ||
           (nonBlankValue(environment, key::enable_native_worker) &&
            !isFlagSet(environment, key::enable_native_worker));
}

/// In the order in which the helper decides.
Finding workerFinding(const Examination& examination) {
    constexpr std::string_view point = "worker";
    const auto& environment = examination.environment;
    if (isFlagSet(environment, key::disable_worker)) {
        return Finding::note(
            point, "Workers are switched off (--no-worker, or " + std::string(key::disable_worker) + ").",
            "Only the self-test brings a message.", "Leave that out to have messages.");
    }
    if (const auto path = nonBlankValue(environment, key::worker_path)) {
        return programFinding(examination, "worker", standardizedPath(*path), key::worker_path);
    }
    if (!nativeWorkerIsOff(environment)) {
        if (const auto path = nonBlankValue(environment, key::native_worker_path)) {
            return programFinding(examination, "native worker", standardizedPath(*path),
                                  key::native_worker_path);
        }
        const auto beside = nativeWorkerBeside(examination.helper);
        if (examination.fileManager.fileExists(beside)) {
            return programFinding(examination, "native worker", beside, key::native_worker_path);
        }
    }
    if (isFlagSet(environment, key::enable_builtin_worker)) {
        return Finding::ok(point, "The built-in web worker is switched on.");
    }
    // What a helper that runs already was started with is not known here.
    return Finding::note(point, "Neither an option nor this environment names a worker.",
                         "A helper that is started so has none: only the self-test brings a message.",
                         "Add --builtin-worker or --native-worker PATH to examine one; for the helper set " +
                             std::string(key::enable_builtin_worker) + "=1 or " +
                             std::string(key::native_worker_path) + ".");
}

bool needsEngine(const Examination& examination) {
    return isFlagSet(examination.environment, key::enable_builtin_worker) &&
           !isFlagSet(examination.environment, key::disable_worker);
}

}  // namespace

Findings examinedInstallation(const Examination& examination) {
    Findings findings{helperFinding(examination), workerFinding(examination)};
    append(findings, examinedEngine(examination, needsEngine(examination)));
    return findings;
}

Findings examined(const Examination& examination) {
    auto findings = examinedInstallation(examination);
    append(findings, examinedDirectory(examination));
    return findings;
}

}  // namespace brindle::console
