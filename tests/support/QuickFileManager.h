#pragma once

#include <string>
#include <string_view>

#include "support/ForwardingFileManager.h"

namespace brindle::test {

/// The real file system, without waiting for the disk: for tests that write thousands of files, to which it
/// does not matter what a loss of power would leave.
class QuickFileManager final : public ForwardingFileManager {
  public:
    QuickFileManager() : ForwardingFileManager(real_) {}

    void writeFileAtomically(const std::string& path, std::string_view bytes,
                             Durability /*durability*/) override {
        real_.writeFileAtomically(path, bytes, Durability::process);
    }
    void writePiecesAtomically(const std::string& path, const PieceGiver& give,
                               Durability /*durability*/) override {
        real_.writePiecesAtomically(path, give, Durability::process);
    }

  private:
    PosixFileManager real_;
};

}  // namespace brindle::test
