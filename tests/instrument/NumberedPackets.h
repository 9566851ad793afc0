#pragma once

#include "quorvex/quorvex.h"

#include <memory>
#include <string>

namespace Quorvex::test {

/// The exit code where the system cannot do what the recording program was asked for.
constexpr int kNotHere = 99;

/// In the default mode of recording, every so many packets are flushed.
constexpr unsigned kFlushed = 300;

/// Functions that are numbers, not places in the program, have ids above this one.
constexpr unsigned kFirstNumber = 1U << 30;

/// The packet that a program records as its n-th, so that a reader can tell what is missing: mostly small ones, some
/// with a text behind them, and some of any size.
inline std::unique_ptr<CPacket> numberedPacket(unsigned n) {
    const CCoreContext context(n, 1, 2, kUnknown64);
    if (n % 50 == 0)
        return std::make_unique<CFunctionDefine>(context, n, std::string(1 + n / 50 % 600, 'f').c_str());
    if (n % 7 == 0) {
        const std::string text(1 + n / 7 % 254, 't');
        return std::make_unique<CCharString>(text.c_str());
    }
    return std::make_unique<CFunctionEnter>(context, n);
}

} // namespace Quorvex::test
