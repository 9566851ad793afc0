#pragma once

#include "quorvex/format/Packet.h"

#include <memory>

namespace Quorvex::test {

/// The exit code where the system cannot do what the recording program was asked for.
constexpr int kNotHere = 99;

/// In the default mode of recording, every so many packets are flushed.
constexpr unsigned kFlushed = 300;

/// Functions that are numbers, not places in the program, have ids above this one.
constexpr unsigned kFirstNumber = 1U << 30;

/// The packet that a program records as its n-th, so that a reader can tell what is missing: mostly small ones, some
/// with a text behind them, and some of any size.
std::unique_ptr<CPacket> numberedPacket(unsigned n);

} // namespace Quorvex::test
