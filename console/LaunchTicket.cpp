#include "console/LaunchTicket.h"

#include <errno.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <string_view>
#include <thread>

#include "exchange/EnvironmentKeys.h"
#include "system/FileManager.h"
#include "system/FileSystemFailure.h"
#include "system/PathSteps.h"
#include "system/Paths.h"
#include "text/Identifier.h"
#include "text/WithoutFailing.h"

namespace brindle::console {
namespace {

constexpr std::string_view directory_prefix = "brindle-console-";
constexpr std::string_view token_file_name = "launch-token";
constexpr std::string_view data_directory_name = "data";
/// How long a worker that was asked to end, and is on its way, may go on writing into what is being removed.
constexpr std::chrono::milliseconds removal_patience{5000};
constexpr std::chrono::milliseconds removal_interval{20};

std::string temporaryBase() {
    std::error_code error;
    const auto base = std::filesystem::temp_directory_path(error);
    return error ? "/tmp" : base.string();
}

/// Whether a console that ended long ago, without a chance to clear up, has left it.
bool isLeftover(const std::string& path, FileManager& files) {
    const auto attributes = files.attributes(path);
    return attributes && attributes->isDirectory && isOwn(*attributes) &&
           attributes->modification + LaunchTicket::leftover_age < std::chrono::system_clock::now();
}

/// Whether it is gone.
bool removeData(const std::string& directory) {
    std::error_code error;
    std::filesystem::remove_all(joinedPath(directory, data_directory_name), error);
    return !error;
}

/// The token, the file that it may have been written to first, and the session's data.
void removeTicket(const std::string& directory, FileManager& files) {
    removeData(directory);
    const auto entries = files.readDirectory(directory);
    while (const auto name = entries->next()) {
        if (*name == token_file_name || isTemporaryName(*name))
            files.removeItem(joinedPath(directory, *name));
    }
    files.removeItem(directory);
}

void removeLeftovers(const std::string& base, FileManager& files) {
    for (const auto& name : files.visibleEntries(base)) {
        const auto path = joinedPath(base, name);
        if (!name.starts_with(directory_prefix) || !isLeftover(path, files)) continue;
        try {
            // Fails while a console uses it, however long ago that one has begun.
            const auto lock = files.lockDirectory(path);
            removeTicket(path, files);
        } catch (const FileSystemFailure&) {
            // Nothing of ours, or a later console's turn: no reason to keep this one from its work.
        }
    }
}

}  // namespace

LaunchTicket::LaunchTicket() : token_(randomIdentifier() + randomIdentifier()) {
    const auto base = temporaryBase();
    withoutFailing([&] {
        PosixFileManager files;
        removeLeftovers(base, files);
    });
    std::string directory = joinedPath(base, std::string(directory_prefix) + "XXXXXX");
    if (::mkdtemp(directory.data()) == nullptr) {
        throw FileSystemFailure("create the directory", directory, errno);
    }
    directory_ = directory;
    file_ = joinedPath(directory_, token_file_name);
    holdDirectory();
    try {
        PosixFileManager().writeFileAtomically(file_, token_, Durability::process);
    } catch (const FileSystemFailure&) {
        ::rmdir(directory_.c_str());
        throw;
    }
}

LaunchTicket::~LaunchTicket() {
    const auto deadline = std::chrono::steady_clock::now() + removal_patience;
    while (!removeData(directory_) && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(removal_interval);
    }
    ::unlink(file_.c_str());
    ::rmdir(directory_.c_str());
}

std::string LaunchTicket::dataDirectory() const {
    return joinedPath(directory_, data_directory_name);
}

void LaunchTicket::holdDirectory() {
    try {
        lock_ = PosixFileManager().lockDirectory(directory_);
    } catch (const FileSystemFailure&) {
        // Where there are no locks, nobody takes one to remove it either.
    }
}

void LaunchTicket::addTo(Environment& environment) const {
    environment.insert_or_assign(std::string(environment_key::launch_token), token_);
    environment.insert_or_assign(std::string(environment_key::launch_token_file), file_);
}

}  // namespace brindle::console
