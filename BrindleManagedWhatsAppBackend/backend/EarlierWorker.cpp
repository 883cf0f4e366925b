#include "backend/EarlierWorker.h"

#include <signal.h>

#include <chrono>
#include <string>

#include "exchange/EnvironmentKeys.h"
#include "exchange/WorkerProcessFile.h"
#include "system/Environment.h"
#include "system/PathSteps.h"
#include "system/Paths.h"
#include "system/ProcessFacts.h"
#include "system/Processes.h"
#include "text/Failure.h"

namespace brindle {
namespace {

using std::chrono::milliseconds;

constexpr int termination_probes = 20;
constexpr milliseconds termination_probe_interval{50};
/// By so much a process may seem to be younger than the file that it has written: clocks are coarse.
constexpr milliseconds pid_file_tolerance{2000};

bool isSameObject(FileManager& fileManager, const std::string& path, const std::string& other) {
    // The directories themselves, wherever links lead.
    const auto first = fileManager.attributes(joinedPath(path, "."));
    const auto second = fileManager.attributes(joinedPath(other, "."));
    return first && second && first->device == second->device && first->inode == second->inode;
}

/// Whether the process was started to work in the directory.
bool worksIn(pid_t process, const DataDirectory& directory, FileManager& fileManager) {
    const auto value = nonBlankValue(environmentOf(process, fileManager), environment_key::data_directory);
    if (!value) return false;
    return standardizedPath(*value) == directory.path || isSameObject(fileManager, *value, directory.path);
}

bool beganAfter(pid_t process, std::chrono::system_clock::time_point time, FileManager& fileManager) {
    const auto facts = processFacts(process, fileManager);
    return facts && facts->start > time + pid_file_tolerance;
}

bool isInnocent(pid_t process, const DataDirectory& directory, FileManager& fileManager) {
    if (isSelfOrAncestor(process, fileManager)) return true;
    const auto file = fileManager.attributes(directory.workerPIDFile);
    // Where a group may write, somebody else may have written it to have this user's process ended.
    if (file && !isOwn(*file)) return true;
    return file && beganAfter(process, file->modification, fileManager) &&
           !worksIn(process, directory, fileManager);
}

void terminate(const Descriptor& process, const Clock& clock) {
    if (!signalProcess(process, 0)) return;
    signalProcess(process, SIGTERM);
    for (int probe = 0; probe < termination_probes; ++probe) {
        if (!signalProcess(process, 0)) return;
        clock.sleep(termination_probe_interval);
    }
    signalProcess(process, SIGKILL);
}

}  // namespace

void endEarlierWorker(const DataDirectory& directory, FileManager& fileManager, const Clock& clock) {
    try {
        const auto identifier = recordedWorkerProcess(fileManager, directory);
        if (identifier && *identifier > 0) {
            // Before anything is learnt of the process, so that what is learnt is told of the one that is
            // signalled: once it ends, its number may become another's.
            const auto process = processEndDescriptor(*identifier);
            if (process.isOpen() && !isInnocent(*identifier, directory, fileManager))
                terminate(process, clock);
        }
    } catch (const Failure&) {
        // What cannot be learnt of a process is no reason to end it.
    }
    fileManager.removeIfPresent(directory.workerPIDFile);
}

}  // namespace brindle
