#pragma once

#include <string>
#include <vector>

#include "system/Descriptor.h"

namespace brindle::console {

/// What happened to a visible entry of a directory.
struct DirectoryEvent {
    enum class Kind {
        /// It is there in one step, under its final name.
        appeared,
        /// Its content was changed under a name that everybody sees.
        written,
        /// It was moved away or removed.
        left,
    };

    Kind kind = Kind::appeared;
    std::string name;
};

/// Follows the entries of a directory in the order in which they come and go (Linux inotify). Hidden ones are
/// nobody's business.
class DirectoryEvents {
  public:
    /// Throws Failure when the system does not tell.
    explicit DirectoryEvents(const std::string& directory);

    /// Readable when something has happened.
    int descriptor() const { return events_.get(); }
    /// Everything since the last call.
    std::vector<DirectoryEvent> take();

  private:
    Descriptor events_;
};

}  // namespace brindle::console
