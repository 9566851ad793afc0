// Whatever the bytes, the cursor comes to the packets that the reader makes, tells the same of them, passes over the
// same and stops at the same place; also where it gets its bytes in portions.

#include "fuzz/Targets.h"
#include "tests/support/CursorMatch.h"

namespace Quorvex::fuzz {

void cursor(const std::string& data) {
    const unsigned first = data.empty() ? 0 : static_cast<unsigned char>(data[0]);
    for (const unsigned portion : {0U, first + 1}) {
        const std::string mismatch = test::cursorMismatch(data, portion);
        require(mismatch.empty(), mismatch.c_str());
    }
}

} // namespace Quorvex::fuzz
