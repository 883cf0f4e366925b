#include "console/LaunchTicket.h"

#include <errno.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>

#include "exchange/EnvironmentKeys.h"
#include "system/FileManager.h"
#include "system/FileSystemFailure.h"
#include "system/Paths.h"
#include "text/Identifier.h"

namespace brindle::console {
namespace {

std::string temporaryBase() {
    std::error_code error;
    const auto base = std::filesystem::temp_directory_path(error);
    return error ? "/tmp" : base.string();
}

}  // namespace

LaunchTicket::LaunchTicket() : token_(randomIdentifier() + randomIdentifier()) {
    std::string directory = joinedPath(temporaryBase(), "brindle-console-XXXXXX");
    if (::mkdtemp(directory.data()) == nullptr) {
        throw FileSystemFailure("create the directory", directory, errno);
    }
    directory_ = directory;
    file_ = joinedPath(directory_, "launch-token");
    try {
        PosixFileManager().writeFileAtomically(file_, token_, Durability::process);
    } catch (const FileSystemFailure&) {
        ::rmdir(directory_.c_str());
        throw;
    }
}

LaunchTicket::~LaunchTicket() {
    ::unlink(file_.c_str());
    ::rmdir(directory_.c_str());
}

void LaunchTicket::addTo(Environment& environment) const {
    environment.insert_or_assign(std::string(environment_key::launch_token), token_);
    environment.insert_or_assign(std::string(environment_key::launch_token_file), file_);
}

}  // namespace brindle::console
