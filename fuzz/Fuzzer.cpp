#include "fuzz/Targets.h"
#include "tests/support/Bytes.h"

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Quorvex::fuzz::QUORVEX_FUZZ_TARGET({reinterpret_cast<const char*>(data), size});
    Quorvex::test::takeLog(); // it must not grow from run to run
    return 0;
}
