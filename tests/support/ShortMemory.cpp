// The allocator of the test program. It stands apart from what uses it: inlined, it would not look like one to the
// compiler.

#include "tests/support/ShortMemory.h"

#include <cstdlib>
#include <new>

namespace {

constinit thread_local bool t_isShort = false;
constinit thread_local unsigned t_left = 0; ///< allocations before the one that fails
constinit thread_local std::size_t t_size = 0;

void* allocate(std::size_t size) noexcept {
    if (t_isShort && size >= t_size && t_left-- == 0) {
        t_isShort = false;
        return nullptr;
    }
    return std::malloc(size > 0 ? size : 1);
}

void* allocateOrThrow(std::size_t size) {
    if (void* memory = allocate(size))
        return memory;
    throw std::bad_alloc();
}

} // namespace

namespace Quorvex::test {

ShortMemory::ShortMemory(unsigned number, std::size_t size) {
    t_left = number;
    t_size = size;
    t_isShort = true;
}

ShortMemory::~ShortMemory() {
    t_isShort = false;
}

bool ShortMemory::came() const {
    return !t_isShort;
}

} // namespace Quorvex::test

void* operator new(std::size_t size) {
    return allocateOrThrow(size);
}
void* operator new[](std::size_t size) {
    return allocateOrThrow(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}
