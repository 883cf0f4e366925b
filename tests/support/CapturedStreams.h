#pragma once

#include <string>

#include "system/Descriptor.h"

namespace brindle::test {

/// Keeps what this process writes to descriptors 1 and 2, for parts of the system that own the standard
/// streams. What a test reports meanwhile goes to the same place, so assertions belong after take(); the
/// destructor shows what was kept when the test has failed before.
class CapturedStreams {
  public:
    CapturedStreams();
    ~CapturedStreams();
    CapturedStreams(const CapturedStreams&) = delete;
    CapturedStreams& operator=(const CapturedStreams&) = delete;

    struct Text {
        std::string output;
        std::string error;
    };
    /// Gives the streams back and answers what was written. Once.
    Text take();
    /// What was written so far.
    Text peek() const;

  private:
    void restore();

    Descriptor output_;
    Descriptor error_;
    Descriptor realOutput_;
    Descriptor realError_;
};

}  // namespace brindle::test
