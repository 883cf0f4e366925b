#pragma once

#include <unistd.h>

#include <utility>

namespace brindle {

/// Owns one file descriptor (POSIX) and closes it.
class Descriptor {
  public:
    Descriptor() = default;
    explicit Descriptor(int value) : value_(value) {}
    Descriptor(Descriptor&& other) noexcept : value_(std::exchange(other.value_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        if (this != &other) {
            reset();
            value_ = std::exchange(other.value_, -1);
        }
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { reset(); }

    /// The descriptor, or -1 when none is owned.
    int get() const { return value_; }
    bool isOpen() const { return value_ >= 0; }
    /// Gives the descriptor away.
    int release() { return std::exchange(value_, -1); }
    /// Closes the descriptor. On Linux it is gone whatever close() answers, so EINTR is not retried.
    void reset() {
        if (value_ >= 0) ::close(std::exchange(value_, -1));
    }

  private:
    int value_ = -1;
};

}  // namespace brindle
