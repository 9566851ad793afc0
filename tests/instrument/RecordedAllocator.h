#pragma once

namespace Quorvex::test {

/// Whether the program's allocator is recorded.
extern bool g_recordNew;

} // namespace Quorvex::test
