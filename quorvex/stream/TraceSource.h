#pragma once

#include "quorvex/format/Packet.h"
#include "quorvex/platform/Export.h"

#include <cstdint>
#include <list>

namespace Quorvex {

/// A stage that hands packets out; they belong to the caller, who releases them through the packet factory.
class QUORVEX_API CTraceSource {
public:
    virtual bool good() = 0;                            ///< can still deliver
    virtual bool eot() = 0;                             ///< an end-of-trace packet has been delivered
    virtual void clear() = 0;                           ///< resets good and eot
    virtual std::uint64_t size() = 0;                   ///< of the whole trace: bytes for readers, packets for queues
    virtual std::uint64_t position() = 0;               ///< of the next packet, in the same unit
    virtual tagTCode peek() = 0;                        ///< code of the next packet; Invalid when there is none
    virtual bool get(std::list<CPacket*>& packets) = 0; ///< appends packets that are at hand; false when there are none
    virtual CPacket* get() = 0;                         ///< the next packet; null when there is none to be had

protected:
    ~CTraceSource() = default;
};

} // namespace Quorvex
