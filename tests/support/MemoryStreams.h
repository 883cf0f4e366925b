#pragma once

#include <string>

#include "system/Descriptor.h"

namespace brindle::test {

/// Stands in for standard output and standard error: keeps in memory what is written to two descriptors.
class MemoryStreams {
  public:
    MemoryStreams();

    int output() const { return output_.get(); }
    int error() const { return error_.get(); }

    struct Text {
        std::string output;
        std::string error;
    };
    /// What was written so far.
    Text text() const;

  private:
    Descriptor output_;
    Descriptor error_;
};

}  // namespace brindle::test
