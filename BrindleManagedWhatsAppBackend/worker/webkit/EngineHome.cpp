#include "worker/webkit/EngineHome.h"

#include <glib.h>
#include <glib/gstdio.h>

#include <filesystem>
#include <system_error>

#include "text/Failure.h"

namespace brindle {
namespace {

namespace fs = std::filesystem;

constexpr const char* name_prefix = "engine-";

/// Best effort, links not followed: what stays is never looked at again.
void removeTree(const fs::path& path) {
    std::error_code ignored;
    fs::remove_all(path, ignored);
}

void removeEarlierHomes(const std::string& folder) {
    std::error_code ignored;
    for (auto entry = fs::directory_iterator(folder, ignored); entry != fs::end(entry);
         entry.increment(ignored)) {
        if (entry->path().filename().string().starts_with(name_prefix)) removeTree(entry->path());
    }
}

}  // namespace

EngineHome::EngineHome(const std::string& folder) : path_(folder + "/" + name_prefix + "XXXXXX") {
    removeEarlierHomes(folder);
    if (g_mkdtemp(path_.data()) == nullptr) {
        throw Failure("The built-in web worker cannot make a directory in \"" + folder + "\" (" +
                      g_strerror(errno) + "); let this user write there.");
    }
}

EngineHome::~EngineHome() {
    removeTree(path_);
}

}  // namespace brindle
