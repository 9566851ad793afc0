// The allocator of the recording program. It stands apart from what uses it: inlined, it would not look like one to the
// compiler.

#include "tests/instrument/RecordedAllocator.h"

#include "quorvex/instrument/Record.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace Quorvex::test {
bool g_recordNew = false;
std::atomic<unsigned> g_allocations{0};
} // namespace Quorvex::test

void* operator new(std::size_t size) {
    ++Quorvex::test::g_allocations;
    if (Quorvex::test::g_recordNew) {
        QUORVEX_TRACE_SCOPE("operator new");
        if (void* memory = std::malloc(size))
            return memory;
    } else if (void* memory = std::malloc(size)) {
        return memory;
    }
    throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return ::operator new(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
void operator delete(void* memory) noexcept {
    ++Quorvex::test::g_allocations;
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    ++Quorvex::test::g_allocations;
    std::free(memory);
}
