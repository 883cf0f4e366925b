#include "support/WantOfMemory.h"

#include <cstdlib>
#include <new>

namespace brindle::test {
namespace {

struct Want {
    /// Pieces that are still granted; negative: all.
    int granted = -1;
    bool persists = false;
    bool wasMet = false;
};

thread_local constinit Want current;

struct Counted {
    /// Zero: nothing is counted.
    std::size_t fromBytes = 0;
    int pieces = 0;
};

thread_local constinit Counted counted;

bool isRefused() {
    if (current.granted < 0) return false;
    if (current.granted > 0) {
        --current.granted;
        return false;
    }
    current.wasMet = true;
    if (!current.persists) current.granted = -1;
    return true;
}

void* grantedMemory(std::size_t bytes) noexcept {
    if (counted.fromBytes > 0 && bytes >= counted.fromBytes) ++counted.pieces;
    return isRefused() ? nullptr : std::malloc(bytes == 0 ? 1 : bytes);
}

void* memory(std::size_t bytes) {
    if (void* piece = grantedMemory(bytes)) return piece;
    throw std::bad_alloc();
}

}  // namespace

WantOfMemory::WantOfMemory(int allocation, Persistence persistence) {
    current = {
        .granted = allocation - 1, .persists = persistence == Persistence::fromThenOn, .wasMet = false};
}

WantOfMemory::~WantOfMemory() {
    end();
}

bool WantOfMemory::end() {
    current.granted = -1;
    return current.wasMet;
}

LargePieces::LargePieces(std::size_t fromBytes) {
    counted = {.fromBytes = fromBytes};
}

LargePieces::~LargePieces() {
    counted = {};
}

int LargePieces::count() const {
    return counted.pieces;
}

}  // namespace brindle::test

// All that belong together, so that a sanitizer never sees memory of one kind given back to another.
void* operator new(std::size_t bytes) {
    return brindle::test::memory(bytes);
}
void* operator new[](std::size_t bytes) {
    return brindle::test::memory(bytes);
}
void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept {
    return brindle::test::grantedMemory(bytes);
}
void* operator new[](std::size_t bytes, const std::nothrow_t&) noexcept {
    return brindle::test::grantedMemory(bytes);
}
void operator delete(void* piece) noexcept {
    std::free(piece);
}
void operator delete[](void* piece) noexcept {
    std::free(piece);
}
void operator delete(void* piece, std::size_t) noexcept {
    std::free(piece);
}
void operator delete[](void* piece, std::size_t) noexcept {
    std::free(piece);
}
void operator delete(void* piece, const std::nothrow_t&) noexcept {
    std::free(piece);
}
void operator delete[](void* piece, const std::nothrow_t&) noexcept {
    std::free(piece);
}
