#pragma once

#include <atomic>

namespace Quorvex::test {

/// Whether the program's allocator is recorded.
extern bool g_recordNew;
/// How often the allocator was called.
extern std::atomic<unsigned> g_allocations;

} // namespace Quorvex::test
