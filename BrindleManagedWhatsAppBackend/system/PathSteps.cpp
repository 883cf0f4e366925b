#include "system/PathSteps.h"

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "system/FileSystemFailure.h"
#include "system/Paths.h"

namespace brindle {
namespace {

constexpr uid_t root_user = 0;
/// As many as Linux follows.
constexpr int most_links = 40;

/// Takes the first component off; empty at the end.
std::string takeComponent(std::string& path) {
    const auto begin = path.find_first_not_of('/');
    if (begin == std::string::npos) return {};
    const auto end = std::min(path.find('/', begin), path.size());
    std::string component = path.substr(begin, end - begin);
    path.erase(0, end);
    return component;
}

std::string folderAbove(const std::string& path) {
    const auto slash = path.rfind('/');
    return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

/// Whether nobody else could make the next step another one.
bool holdsTheNextStep(const FileAttributes& attributes, PrimaryGroup primaryGroup) {
    // What a link's permissions say means nothing.
    if (attributes.isSymbolicLink) return true;
    const bool isSticky = attributes.isDirectory && (attributes.permissions & S_ISVTX) != 0;
    return isSticky || isClosedToOthers(attributes, primaryGroup);
}

}  // namespace

std::vector<PathStep> stepsAlong(const std::string& path, FileManager& fileManager,
                                 const std::string& start) {
    std::vector<PathStep> steps;
    std::string folder = path.starts_with('/') ? "/" : start;
    std::string rest = path;
    int links = 0;
    // The folder itself, then what follows in it.
    for (std::string component = "."; !component.empty(); component = takeComponent(rest)) {
        if (component == "..") folder = folderAbove(folder);
        const bool isFolder = component == "." || component == "..";
        std::string next = isFolder ? folder : joinedPath(folder, component);
        const auto attributes = fileManager.attributes(next);
        if (!attributes) break;
        steps.push_back({.path = next, .attributes = *attributes});
        if (!attributes->isSymbolicLink) {
            folder = std::move(next);
            continue;
        }
        if (++links > most_links) throw FileSystemFailure("follow the link", next, ELOOP);
        const std::string target = fileManager.readLink(next);
        rest = joinedPath(target, rest);
        // From the root, which is a step as well.
        if (target.starts_with('/')) {
            folder = "/";
            rest.insert(0, ".");
        }
    }
    return steps;
}

bool isClosedToOthers(const FileAttributes& attributes, PrimaryGroup primaryGroup) {
    if ((attributes.permissions & S_IWOTH) != 0) return false;
    if ((attributes.permissions & S_IWGRP) == 0) return true;
    return primaryGroup == PrimaryGroup::isTrusted && attributes.group == ::getegid();
}

bool isOwn(const FileAttributes& attributes) {
    return attributes.owner == ::geteuid();
}

std::optional<std::string> firstStepOfOthers(const std::vector<PathStep>& steps, PrimaryGroup primaryGroup,
                                             FileManager& fileManager) {
    const auto top = fileManager.attributes("/");
    for (const auto& step : steps) {
        const auto owner = step.attributes.owner;
        // In a user namespace root may go by another number; the owner of the root directory is the one who
        // can do everything there.
        const bool isRoot = owner == root_user || (top && owner == top->owner);
        const bool isTrusted = isRoot || isOwn(step.attributes);
        if (!isTrusted || !holdsTheNextStep(step.attributes, primaryGroup)) return step.path;
    }
    return std::nullopt;
}

}  // namespace brindle
