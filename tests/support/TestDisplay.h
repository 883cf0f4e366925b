#pragma once

#include <sys/types.h>

#include <string>

#include "support/Environment.h"
#include "support/TemporaryDirectory.h"

namespace brindle::test {

/// A display of the test's own, without a screen; it ends with the object.
class TestDisplay {
  public:
    enum class Kind { x11, wayland };

    /// Starts the display server and waits until it takes clients.
    explicit TestDisplay(Kind kind = Kind::x11);
    ~TestDisplay();
    TestDisplay(const TestDisplay&) = delete;
    TestDisplay& operator=(const TestDisplay&) = delete;

    /// Makes a process with this environment use the display and no other.
    void addTo(Environment& environment) const;
    /// The same for this very process.
    void use() const;

    /// One X display for all tests of this process.
    static const TestDisplay& shared();

  private:
    void startX11();
    bool startX11(int number);
    void startWayland();

    Kind kind_;
    TemporaryDirectory directory_;
    std::string name_;
    pid_t server_ = -1;
};

}  // namespace brindle::test
