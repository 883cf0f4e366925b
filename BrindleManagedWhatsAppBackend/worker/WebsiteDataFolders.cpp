#include "worker/WebsiteDataFolders.h"

#include <errno.h>
#include <sys/types.h>

#include <system_error>
#include <utility>
#include <vector>

#include "system/FileSystemFailure.h"
#include "system/PathSteps.h"
#include "system/Paths.h"
#include "text/Failure.h"
#include "text/Text.h"

namespace brindle {
namespace {

constexpr mode_t private_mode = 0700;

/// One of the user's base directories.
struct BaseDirectory {
    const char* variable;
    /// In the home directory, where the variable names none.
    const char* fallback;

    std::string path(const Environment& environment) const {
        const auto given = environment.find(variable);
        if (given != environment.end() && given->second.starts_with('/')) return given->second;
        return joinedPath(homeDirectory(environment), fallback);
    }
};

/// Nobody else may be able to put another folder in the place of ours, however far above.
void requireBaseOfNobodyElse(const std::string& base, FileManager& fileManager) {
    const auto steps = stepsAlong(base, fileManager, standardizedPath("."));
    const auto step = firstStepOfOthers(steps, PrimaryGroup::isTrusted, fileManager);
    if (step) throw Failure("others may replace what lies in \"" + singleLine(*step) + "\"");
}

/// Whoever could write there may have left something that the engine would follow.
void requireOwnEntries(const std::string& folder, FileManager& fileManager) {
    std::vector<std::string> unread{folder};
    while (!unread.empty()) {
        const std::string directory = std::move(unread.back());
        unread.pop_back();
        const auto reader = fileManager.readDirectory(directory);
        while (const auto name = reader->next()) {
            auto path = joinedPath(directory, *name);
            const auto attributes = fileManager.attributes(path);
            if (attributes && !isOwn(*attributes))
                throw Failure("\"" + singleLine(path.substr(folder.size() + 1)) +
                              "\" in it belongs to another user");
            if (attributes && attributes->isDirectory) unread.push_back(std::move(path));
        }
    }
}

void makeOwn(const std::string& folder, FileManager& fileManager) {
    const auto attributes = fileManager.attributes(folder);
    if (!attributes) throw FileSystemFailure("look at", folder, ENOENT);
    if (attributes->isSymbolicLink) throw Failure("it is a link");
    if (!isOwn(*attributes)) throw Failure("it belongs to another user");
    if (attributes->permissions == private_mode) return;
    fileManager.makePrivate(folder);
    requireOwnEntries(folder, fileManager);
}

std::string ownFolder(const BaseDirectory& directory, const std::string& applicationName,
                      const Environment& environment, FileManager& fileManager) {
    const std::string base = directory.path(environment);
    std::string folder = joinedPath(base, applicationName);
    const auto refuse = [&](const std::string& reason) {
        throw Failure("The built-in web worker cannot keep website data in \"" + folder + "\" (" + reason +
                      "); let " + directory.variable + " name a directory that this user can write to.");
    };
    try {
        fileManager.createDirectory(folder);
        requireBaseOfNobodyElse(base, fileManager);
        makeOwn(folder, fileManager);
        // A login that cannot be stored would quietly be lost at the end.
        fileManager.requireAccess(folder);
    } catch (const FileSystemFailure& failure) {
        refuse(std::generic_category().message(failure.code()));
    } catch (const Failure& failure) {
        refuse(failure.what());
    }
    return folder;
}

}  // namespace

WebsiteDataFolders makeWebsiteDataFolders(const std::string& applicationName, const Environment& environment,
                                          FileManager& fileManager) {
    const auto make = [&](const BaseDirectory& directory) {
        return ownFolder(directory, applicationName, environment, fileManager);
    };
    return {.data = make({.variable = "XDG_DATA_HOME", .fallback = ".local/share"}),
            .cache = make({.variable = "XDG_CACHE_HOME", .fallback = ".cache"})};
}

}  // namespace brindle
