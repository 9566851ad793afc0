#pragma once

#include "quorvex/format/Packet.h"
#include "quorvex/platform/Export.h"

#include <cstdint>
#include <list>

namespace Quorvex {

/// A stage that takes packets. `put` never takes ownership; `forward` hands packets over, and what a failed one did not
/// take stays with the caller. A sink belongs to one thread at a time.
class QUORVEX_API CTraceSink {
public:
    virtual bool good() = 0;  ///< can take more packets
    virtual void clear() = 0; ///< resets the error state
    virtual bool put(CPacket* packet) = 0;
    virtual bool forward(std::list<CPacket*>& packets) = 0;
    virtual bool forward(CPacket*& packet) = 0;
    virtual std::uint64_t out_size() = 0; ///< how much the sink holds or has produced, as each class says
    virtual void flush() = 0;             ///< pushes buffered output to the target

protected:
    ~CTraceSink() = default;
};

/// A sink with a write position in bytes.
class QUORVEX_API CTraceSinkEx : public CTraceSink {
public:
    virtual std::uint64_t tellp() = 0;

protected:
    ~CTraceSinkEx() = default;
};

} // namespace Quorvex
