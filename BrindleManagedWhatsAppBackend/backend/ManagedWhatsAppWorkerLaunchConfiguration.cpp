#include "backend/ManagedWhatsAppWorkerLaunchConfiguration.h"

#include <unistd.h>

#include "exchange/EnvironmentKeys.h"
#include "system/PathSteps.h"
#include "text/Failure.h"
#include "text/Text.h"

namespace brindle {
namespace {

namespace key = environment_key;

constexpr std::string_view native_worker_build_directory = "Support/ManagedWhatsAppNativeWorker/.build";
constexpr std::string_view native_worker_directory = "Support/ManagedWhatsAppNativeWorker";
// Where these stand, a test harness runs the parent, and real workers stay off.
constexpr std::string_view test_harness_keys[] = {"XCTestConfigurationFilePath", "SWIFT_TESTING_ENABLED"};

bool nativeWorkersEnabled(const Environment& environment) {
    if (isFlagSet(environment, key::disable_native_worker)) return false;
    if (nonBlankValue(environment, key::enable_native_worker))
        return isFlagSet(environment, key::enable_native_worker);
    for (const auto harness : test_harness_keys) {
        if (environment.contains(harness)) return false;
    }
    return true;
}

/// A place where a native worker is looked for without being told.
struct NativeWorkerCandidate {
    /// Where the search begins; standardised.
    std::string root;
    /// From there on.
    std::string place;

    std::string path() const { return standardizedPath(joinedPath(root, place)); }
};

std::vector<NativeWorkerCandidate> nativeWorkerCandidates(const MainBundle& bundle) {
    std::vector<NativeWorkerCandidate> candidates;
    const auto add = [&](const std::string& root, std::string_view directory) {
        NativeWorkerCandidate candidate{.root = standardizedPath(root),
                                        .place = joinedPath(directory, native_worker_name)};
        for (const auto& earlier : candidates) {
            if (earlier.path() == candidate.path()) return;
        }
        candidates.push_back(std::move(candidate));
    };
    if (bundle.executablePath) add(joinedPath(*bundle.executablePath, ".."), ".");
    if (bundle.resourceDirectory) add(*bundle.resourceDirectory, ".");
    add(".", native_worker_build_directory);
    add(".", native_worker_directory);
    return candidates;
}

/// Whether nobody but this user and root can have put the candidate there or can change it: it would get the
/// launch token, and a working directory may well be one that users share.
bool isSafe(const NativeWorkerCandidate& candidate, const WorkerLaunchConditions& conditions) {
    try {
        const auto steps = stepsAlong(candidate.place, conditions.fileManager, candidate.root);
        const auto step = firstStepOfOthers(steps, PrimaryGroup::isNotTrusted, conditions.fileManager);
        if (!step) return true;
        conditions.report(
            "Passed over the native worker \"" + candidate.path() + "\", because \"" + *step +
            "\" belongs to another user or can be written by others, if only by its group; if it "
            "is to run, let " +
            std::string(key::native_worker_path) + " name it or take that permission away (chmod go-w).");
    } catch (const Failure& failure) {
        conditions.report("Passed over the native worker \"" + candidate.path() + "\": " + failure.what());
    }
    return false;
}

std::optional<std::string> findNativeWorker(const WorkerLaunchConditions& conditions) {
    // A path that was given and is wrong switches the native worker off; it is not replaced by a guess.
    if (const auto given = nonBlankValue(conditions.environment, key::native_worker_path)) {
        auto path = standardizedPath(*given);
        if (!conditions.fileManager.fileExists(path)) return std::nullopt;
        return path;
    }
    for (const auto& candidate : nativeWorkerCandidates(conditions.bundle)) {
        auto path = candidate.path();
        if (conditions.fileManager.fileExists(path) && isSafe(candidate, conditions)) return path;
    }
    return std::nullopt;
}

std::optional<std::string> runningExecutable(const MainBundle& bundle) {
    if (bundle.executablePath) return standardizedPath(*bundle.executablePath);
    const auto argument = trimmed(bundle.firstArgument);
    if (argument.empty()) return std::nullopt;
    return standardizedPath(argument);
}

Environment workerEnvironment(const WorkerLaunchConditions& conditions) {
    Environment environment = conditions.environment;
    environment.insert_or_assign(std::string(key::data_directory), conditions.dataDirectoryPath);
    environment.insert_or_assign(std::string(key::platform), conditions.platform);
    environment.insert_or_assign(std::string(key::parent_process), std::to_string(::getpid()));
    return environment;
}

ManagedWhatsAppWorkerLaunchConfiguration webWorker(const WorkerLaunchConditions& conditions,
                                                   std::string executable, std::string description) {
    ManagedWhatsAppWorkerLaunchConfiguration configuration;
    configuration.executableURL = std::move(executable);
    configuration.environment = workerEnvironment(conditions);
    configuration.environment.insert_or_assign(std::string(key::worker_role),
                                               std::string(key::runtime_worker_role));
    configuration.launchDescription = std::move(description);
    return configuration;
}

ManagedWhatsAppWorkerLaunchConfiguration nativeWorker(const WorkerLaunchConditions& conditions,
                                                      std::string executable) {
    ManagedWhatsAppWorkerLaunchConfiguration configuration;
    configuration.launchDescription = "native protocol worker (" + executable + ")";
    configuration.executableURL = std::move(executable);
    configuration.environment = workerEnvironment(conditions);
    configuration.environment.insert_or_assign(std::string(key::worker_implementation),
                                               std::string(key::native_worker_implementation));
    return configuration;
}

}  // namespace

std::optional<ManagedWhatsAppWorkerLaunchConfiguration> resolveLaunchConfiguration(
    const WorkerLaunchConditions& conditions) {
    const auto& environment = conditions.environment;
    if (isFlagSet(environment, key::disable_worker)) return std::nullopt;
    if (const auto given = nonBlankValue(environment, key::worker_path)) {
        auto path = standardizedPath(*given);
        return webWorker(conditions, path, path);
    }
    if (nativeWorkersEnabled(environment)) {
        if (auto path = findNativeWorker(conditions)) return nativeWorker(conditions, std::move(*path));
    }
    if (isFlagSet(environment, key::enable_builtin_worker)) {
        if (const auto path = runningExecutable(conditions.bundle)) {
            return webWorker(conditions, *path, "built-in WebKit worker (" + *path + ")");
        }
    }
    return std::nullopt;
}

}  // namespace brindle
