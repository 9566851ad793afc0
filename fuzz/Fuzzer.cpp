#include "fuzz/Targets.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Quorvex::fuzz::QUORVEX_FUZZ_TARGET(data, size);
    return 0;
}
