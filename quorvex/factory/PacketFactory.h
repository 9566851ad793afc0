#pragma once

#include "quorvex/format/Exception.h"
#include "quorvex/packets/PacketKinds.h"
#include "quorvex/platform/Export.h"

#include <iosfwd>
#include <list>
#include <new>
#include <utility>

namespace Quorvex {

/// Makes, copies, converts and destroys packets. Every packet it returns is a new object owned by the caller, who gives
/// it back by releaseCPacket or release, or hands it to a sink that takes it. It never takes a packet it is given,
/// except to release it. All operations may run on any thread as long as no two use the same packet, list or stream.
/// Where memory is short they throw the out-of-memory CQVXException.
class QUORVEX_API CPacketFactory {
public:
    /// A packet in its default state; null for a code that has no class.
    static CPacket* getCPacket(tagTCode code);
    /// A packet read in from the payload behind `header`. Null, with nothing read, for a code that has no class; throws
    /// the read-constructor CQVXException of the class when the payload cannot be read.
    static CPacket* getCPacket(const CPacketHeader& header, std::istream& in);
    /// The same from memory; `consumed` gets the bytes taken, those of texts behind the payload included.
    static CPacket* getCPacket(const CPacketHeader& header, const char* buffer, unsigned size, unsigned& consumed);
    /// As above, with the header read from the stream or the buffer too. Null also when there is none to read.
    static CPacket* getCPacket(std::istream& in);
    static CPacket* getCPacket(const char* buffer, unsigned size, unsigned& consumed);

    /// Clears the caller's pointer, then destroys the packet; false when there is none.
    static bool releaseCPacket(CPacket** packet);
    /// Destroys all packets of the list and empties it; false when a destructor throws.
    static bool release(std::list<CPacket*>& packets);

    /// An independent copy of the same class; null for a null packet or one whose code has no class.
    static CPacket* duplicate(CPacket* packet);
    /// Appends copies of all packets of `from` to `to`, skipping nulls. Stops at the first that cannot be copied:
    /// false, and a message in the log.
    static bool duplicate(std::list<CPacket*>& from, std::list<CPacket*>& to);

    /// The relative form of a packet against a full context. Null when the packet carries no such context, has no
    /// relative form, or its context cannot be told relative to `last`. Never throws.
    static CPacket* compress(CPacket* packet, const CCoreContext& last);
    static CPacket* compress(CPacket* packet, const CBusContext& last);
    static CPacket* compress(CPacket* packet, const CSystemContext& last);
    /// The absolute form of a relative packet, the mirror of compress.
    static CPacket* decompress(CPacket* packet, const CCoreContext& last);
    static CPacket* decompress(CPacket* packet, const CBusContext& last);
    static CPacket* decompress(CPacket* packet, const CSystemContext& last);

    /// A packet of that class from the values of one of its constructors.
    template <class P, class... Values> static CPacket* make(Values&&... values) {
        try {
            return new P(std::forward<Values>(values)...);
        } catch (const std::bad_alloc&) {
            CQVXException::ThrowOutOfMemory();
        }
    }

    // The same by name, for each kind and set of values.
    static CPacket* getCExecInsn(const CCoreContext& context);
    static CPacket* getCRelExecInsn(const CRelCoreContext& context);
    static CPacket* getCNonExecInsn(const CCoreContext& context);
    static CPacket* getCRelNonExecInsn(const CRelCoreContext& context);
    static CPacket* getCDirectBranch(const CCoreContext& context, std::uint64_t target);
    static CPacket* getCRelDirectBranch(const CRelCoreContext& context, std::uint64_t target);
    static CPacket* getCIndirectBranch(const CCoreContext& context, std::uint64_t target);
    static CPacket* getCRelIndirectBranch(const CRelCoreContext& context, std::uint64_t target);
    static CPacket* getCHWExceptionLeave(const CCoreContext& context, std::uint32_t exception);
    static CPacket* getCRelHWExceptionLeave(const CRelCoreContext& context, std::uint32_t exception);
    static CPacket* getCHWExceptionEnter(const CCoreContext& context, std::uint32_t exception);
    static CPacket* getCRelHWExceptionEnter(const CRelCoreContext& context, std::uint32_t exception);
    static CPacket* getCFunctionDefine(const CCoreContext& context, std::uint32_t id, const CCharStringSequence& name);
    static CPacket* getCRelFunctionDefine(const CRelCoreContext& context, std::uint32_t id,
                                          const CCharStringSequence& name);
    static CPacket* getCProcessDefine(const CCoreContext& context, std::uint32_t id, const CCharStringSequence& name);
    static CPacket* getCRelProcessDefine(const CRelCoreContext& context, std::uint32_t id,
                                         const CCharStringSequence& name);
    static CPacket* getCFunctionUndefine(const CCoreContext& context, std::uint32_t id);
    static CPacket* getCRelFunctionUndefine(const CRelCoreContext& context, std::uint32_t id);
    static CPacket* getCProcessUndefine(const CCoreContext& context, std::uint32_t id);
    static CPacket* getCRelProcessUndefine(const CRelCoreContext& context, std::uint32_t id);
    static CPacket* getCProcessEnter(const CCoreContext& context, std::uint32_t id);
    static CPacket* getCRelProcessEnter(const CRelCoreContext& context, std::uint32_t id);
    static CPacket* getCProcessLeave(const CCoreContext& context, std::uint32_t id);
    static CPacket* getCRelProcessLeave(const CRelCoreContext& context, std::uint32_t id);
    static CPacket* getCFunctionEnter(const CCoreContext& context, std::uint32_t function);
    static CPacket* getCRelFunctionEnter(const CRelCoreContext& context, std::uint32_t function);
    static CPacket* getCFunctionEnter(const CCoreContext& context, std::uint32_t source, std::uint32_t target);
    static CPacket* getCRelFunctionEnter(const CRelCoreContext& context, std::uint32_t source, std::uint32_t target);
    static CPacket* getCFunctionLeave(const CCoreContext& context, std::uint32_t function);
    static CPacket* getCRelFunctionLeave(const CRelCoreContext& context, std::uint32_t function);
    static CPacket* getCFunctionLeave(const CCoreContext& context, std::uint32_t source, std::uint32_t target);
    static CPacket* getCRelFunctionLeave(const CRelCoreContext& context, std::uint32_t source, std::uint32_t target);
    static CPacket* getCTypeDefine(const CCoreContext& context, std::uint32_t id, std::uint8_t size,
                                   const CCharStringSequence& name);
    static CPacket* getCRelTypeDefine(const CRelCoreContext& context, std::uint32_t id, std::uint8_t size,
                                      const CCharStringSequence& name);
    static CPacket* getCTypeUndefine(const CCoreContext& context, std::uint32_t id);
    static CPacket* getCRelTypeUndefine(const CRelCoreContext& context, std::uint32_t id);
    static CPacket* getCVariableUndefine(const CCoreContext& context, std::uint32_t id);
    static CPacket* getCRelVariableUndefine(const CRelCoreContext& context, std::uint32_t id);
    static CPacket* getCVariableDefine(const CCoreContext& context, std::uint32_t id, std::uint32_t type,
                                       const CCharStringSequence& name);
    static CPacket* getCRelVariableDefine(const CRelCoreContext& context, std::uint32_t id, std::uint32_t type,
                                          const CCharStringSequence& name);
    static CPacket* getCVariableRead(const CCoreContext& context, std::uint32_t id);
    static CPacket* getCRelVariableRead(const CRelCoreContext& context, std::uint32_t id);
    static CPacket* getCVariableRead(const CCoreContext& context, std::uint32_t id, const CData& data);
    static CPacket* getCRelVariableRead(const CRelCoreContext& context, std::uint32_t id, const CData& data);
    static CPacket* getCVariableWrite(const CCoreContext& context, std::uint32_t id);
    static CPacket* getCRelVariableWrite(const CRelCoreContext& context, std::uint32_t id);
    static CPacket* getCVariableWrite(const CCoreContext& context, std::uint32_t id, const CData& data);
    static CPacket* getCRelVariableWrite(const CRelCoreContext& context, std::uint32_t id, const CData& data);
    static CPacket* getCTraceBroken(const CCoreContext& context);
    static CPacket* getCSync(const CCoreContext& context);
    static CPacket* getCSync();
    static CPacket* getCTimestamp(std::uint64_t timestamp);
    static CPacket* getCTimestamp(std::uint64_t timestamp, std::uint32_t hwCtx, std::uint64_t frequency);
    static CPacket* getCMessage(std::uint64_t timestamp, std::int8_t level, const CCharStringSequence& text);
    static CPacket* getCTraceEnabled(std::uint64_t frameLen, const SFrameConfig& config);
    static CPacket* getCTraceDisabled();
    static CPacket* getCEndOfTrace();
    static CPacket* getCFill(std::uint8_t count);
    static CPacket* getCReadData(const CCoreContext& context, std::uint64_t address);
    static CPacket* getCRelReadData(const CRelCoreContext& context, std::uint64_t address);
    static CPacket* getCReadData(const CCoreContext& context, std::uint64_t address, const CData& data);
    static CPacket* getCRelReadData(const CRelCoreContext& context, std::uint64_t address, const CData& data);
    static CPacket* getCWriteData(const CCoreContext& context, std::uint64_t address);
    static CPacket* getCRelWriteData(const CRelCoreContext& context, std::uint64_t address);
    static CPacket* getCWriteData(const CCoreContext& context, std::uint64_t address, const CData& data);
    static CPacket* getCRelWriteData(const CRelCoreContext& context, std::uint64_t address, const CData& data);
    static CPacket* getCCounterDefine(const CCoreContext& context, std::uint32_t id, std::uint8_t dimensions,
                                      const CCharStringSequence& name);
    static CPacket* getCRelCounterDefine(const CRelCoreContext& context, std::uint32_t id, std::uint8_t dimensions,
                                         const CCharStringSequence& name);
    static CPacket* getCCounterDefineUnit(const CCoreContext& context, std::uint32_t id, std::uint8_t dimensions,
                                          const CCharStringSequence& name);
    static CPacket* getCRelCounterDefineUnit(const CRelCoreContext& context, std::uint32_t id, std::uint8_t dimensions,
                                             const CCharStringSequence& name);
    static CPacket* getCCounterUndefine(const CCoreContext& context, std::uint32_t id);
    static CPacket* getCRelCounterUndefine(const CRelCoreContext& context, std::uint32_t id);
    static CPacket* getCCounterValueVar(const CCoreContext& context, std::uint32_t id, const TVarCounter_t& value,
                                        const TVarCounter_t& index);
    static CPacket* getCRelCounterValueVar(const CRelCoreContext& context, std::uint32_t id, const TVarCounter_t& value,
                                           const TVarCounter_t& index);
    static CPacket* getCCounterValue(const CCoreContext& context, std::uint32_t id, TCounter_t value);
    static CPacket* getCRelCounterValue(const CRelCoreContext& context, std::uint32_t id, TCounter_t value);
    static CPacket* getCCounterValueDim1(const CCoreContext& context, std::uint32_t id, TCounter_t value,
                                         TCounterIdx_t index);
    static CPacket* getCRelCounterValueDim1(const CRelCoreContext& context, std::uint32_t id, TCounter_t value,
                                            TCounterIdx_t index);
    static CPacket* getCCounterValueDim2(const CCoreContext& context, std::uint32_t id, TCounter_t value,
                                         TCounterIdx_t index1, TCounterIdx_t index2);
    static CPacket* getCRelCounterValueDim2(const CRelCoreContext& context, std::uint32_t id, TCounter_t value,
                                            TCounterIdx_t index1, TCounterIdx_t index2);
    static CPacket* getCCounterValueDimN(const CCoreContext& context, std::uint32_t id, std::uint8_t count,
                                         TCounter_t value, const TCounterIdx_t* indices);
    static CPacket* getCRelCounterValueDimN(const CRelCoreContext& context, std::uint32_t id, std::uint8_t count,
                                            TCounter_t value, const TCounterIdx_t* indices);
    static CPacket* getCBusData(const CBusContext& context, const CBusDataSignals& signals, const CData& data);
    static CPacket* getCRelBusData(const CRelBusContext& context, const CBusDataSignals& signals, const CData& data);
    static CPacket* getCBusAddrData(const CBusContext& context, const CBusDataSignals& signals, std::uint64_t address,
                                    const CData& data);
    static CPacket* getCRelBusAddrData(const CRelBusContext& context, const CBusDataSignals& signals,
                                       std::uint64_t address, const CData& data);
    static CPacket* getCSignal(const CBusContext& context, const CSignalMask& value, const CSignalMask& mask);
    static CPacket* getCRelSignal(const CRelBusContext& context, const CSignalMask& value, const CSignalMask& mask);
    static CPacket* getCSignalDefine(const CBusContext& context, const std::uint32_t& id, const CSignalMask& mask,
                                     const CCharStringSequence& name);
    static CPacket* getCRelSignalDefine(const CRelBusContext& context, const std::uint32_t& id, const CSignalMask& mask,
                                        const CCharStringSequence& name);
    static CPacket* getCSignalUndefine(const CBusContext& context, const std::uint32_t& id);
    static CPacket* getCRelSignalUndefine(const CRelBusContext& context, const std::uint32_t& id);
    static CPacket* getCSystemData(const CSystemContext& context, const CData& data);
    static CPacket* getCRelSystemData(const CRelSystemContext& context, const CData& data);
    static CPacket* getCBusSync(const CBusContext& context);
    static CPacket* getCSystemSync(const CSystemContext& context);
    static CPacket* getCEvent(const CCoreContext& context, std::uint32_t id);
    static CPacket* getCEvent(const CCoreContext& context, std::uint32_t id, const CData& data);
    static CPacket* getCEventDefine(std::uint32_t id, EEventType type);
    static CPacket* getCEventDefine(std::uint32_t id, EEventType type, const CCharStringSequence& name);
    static CPacket* getCEventUndefine(std::uint32_t id);
    static CPacket* getCStateMachineDefine(std::uint32_t machine, const CCharStringSequence& definition);
    static CPacket* getCStateMachineInstanceDefine(std::uint32_t machine, std::uint32_t instance,
                                                   const CCharStringSequence& name);
    static CPacket* getCStateDefine(std::uint32_t machine, std::uint32_t state, const CCharStringSequence& name);
    static CPacket* getCTransitionDefine(std::uint32_t machine, std::uint32_t source, std::uint32_t target,
                                         std::uint32_t transition, const CCharStringSequence& name);
    static CPacket* getCStateMachineUndefine(std::uint32_t machine);
    static CPacket* getCInitialState(std::uint32_t machine, std::uint32_t instance, std::uint32_t state,
                                     std::uint32_t hwCtx, std::uint64_t tick);
    static CPacket* getCTransition(std::uint32_t machine, std::uint32_t instance, std::uint32_t transition,
                                   std::uint32_t hwCtx, std::uint64_t tick, const CData& data);
    static CPacket* getCTraceEnabled(std::uint64_t frameLen, TraceExpansion expansion);
    /// A text of any length: not a CCharString, but a CCharStringSequence, which writes itself as CharString packets.
    static CPacket* getCCharString(const unsigned char* bytes, unsigned length);
};

} // namespace Quorvex
