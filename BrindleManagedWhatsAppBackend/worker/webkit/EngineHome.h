#pragma once

#include <string>

#include "system/Descriptor.h"

namespace brindle {

/// A home directory of the engine's own, empty at every start.
///
/// The engine lets a page's process see parts of the home directory: fonts and their cache, themes, settings
/// of toolkit and sound, the folder of the registry of media plug-ins; some of it to write in. None of it is
/// needed, and what a page's process has written must not be read by a later engine, outside of the sandbox.
class EngineHome {
  public:
    /// Makes one below `folder`, and removes those that killed workers have left there; those of workers that
    /// live are locked (flock). Throws Failure.
    explicit EngineHome(const std::string& folder);
    /// Removes it.
    ~EngineHome();
    EngineHome(const EngineHome&) = delete;
    EngineHome& operator=(const EngineHome&) = delete;

    const std::string& path() const { return path_; }

  private:
    void make(const std::string& folder);

    std::string path_;
    /// Tells other workers, as long as this one lives, that the home is in use.
    Descriptor lock_;
};

}  // namespace brindle
