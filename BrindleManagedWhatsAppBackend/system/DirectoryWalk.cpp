#include "system/DirectoryWalk.h"

#include "system/FileSystemFailure.h"
#include "system/Paths.h"

namespace brindle {

std::optional<DirectoryWalk::Entry> DirectoryWalk::next() {
    for (; current_ < directories_.size(); ++current_) {
        if (auto name = nextName()) {
            auto path = joinedPath(directories_[current_], *name);
            return Entry{.directory = current_, .name = std::move(*name), .path = std::move(path)};
        }
        reader_.reset();
    }
    return std::nullopt;
}

std::optional<std::string> DirectoryWalk::nextName() {
    try {
        if (!reader_) reader_ = fileManager_.readDirectory(directories_[current_]);
        return reader_->next();
    } catch (const FileSystemFailure&) {
        reader_.reset();
        ++current_;
        throw;
    }
}

}  // namespace brindle
