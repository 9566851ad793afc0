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
    static CPacket* getCExecInsn(const CCoreContext& context) { return make<CExecInsn>(context); }
    static CPacket* getCRelExecInsn(const CRelCoreContext& context) { return make<CRelExecInsn>(context); }
    static CPacket* getCNonExecInsn(const CCoreContext& context) { return make<CNonExecInsn>(context); }
    static CPacket* getCRelNonExecInsn(const CRelCoreContext& context) { return make<CRelNonExecInsn>(context); }
    static CPacket* getCDirectBranch(const CCoreContext& context, std::uint64_t target) {
        return make<CDirectBranch>(context, target);
    }
    static CPacket* getCRelDirectBranch(const CRelCoreContext& context, std::uint64_t target) {
        return make<CRelDirectBranch>(context, target);
    }
    static CPacket* getCIndirectBranch(const CCoreContext& context, std::uint64_t target) {
        return make<CIndirectBranch>(context, target);
    }
    static CPacket* getCRelIndirectBranch(const CRelCoreContext& context, std::uint64_t target) {
        return make<CRelIndirectBranch>(context, target);
    }
    static CPacket* getCHWExceptionLeave(const CCoreContext& context, std::uint32_t exception) {
        return make<CHWExceptionLeave>(context, exception);
    }
    static CPacket* getCRelHWExceptionLeave(const CRelCoreContext& context, std::uint32_t exception) {
        return make<CRelHWExceptionLeave>(context, exception);
    }
    static CPacket* getCHWExceptionEnter(const CCoreContext& context, std::uint32_t exception) {
        return make<CHWExceptionEnter>(context, exception);
    }
    static CPacket* getCRelHWExceptionEnter(const CRelCoreContext& context, std::uint32_t exception) {
        return make<CRelHWExceptionEnter>(context, exception);
    }
    static CPacket* getCFunctionDefine(const CCoreContext& context, std::uint32_t id, const CCharStringSequence& name) {
        return make<CFunctionDefine>(context, id, name);
    }
    static CPacket* getCRelFunctionDefine(const CRelCoreContext& context, std::uint32_t id,
                                          const CCharStringSequence& name) {
        return make<CRelFunctionDefine>(context, id, name);
    }
    static CPacket* getCProcessDefine(const CCoreContext& context, std::uint32_t id, const CCharStringSequence& name) {
        return make<CProcessDefine>(context, id, name);
    }
    static CPacket* getCRelProcessDefine(const CRelCoreContext& context, std::uint32_t id,
                                         const CCharStringSequence& name) {
        return make<CRelProcessDefine>(context, id, name);
    }
    static CPacket* getCFunctionUndefine(const CCoreContext& context, std::uint32_t id) {
        return make<CFunctionUndefine>(context, id);
    }
    static CPacket* getCRelFunctionUndefine(const CRelCoreContext& context, std::uint32_t id) {
        return make<CRelFunctionUndefine>(context, id);
    }
    static CPacket* getCProcessUndefine(const CCoreContext& context, std::uint32_t id) {
        return make<CProcessUndefine>(context, id);
    }
    static CPacket* getCRelProcessUndefine(const CRelCoreContext& context, std::uint32_t id) {
        return make<CRelProcessUndefine>(context, id);
    }
    static CPacket* getCProcessEnter(const CCoreContext& context, std::uint32_t id) {
        return make<CProcessEnter>(context, id);
    }
    static CPacket* getCRelProcessEnter(const CRelCoreContext& context, std::uint32_t id) {
        return make<CRelProcessEnter>(context, id);
    }
    static CPacket* getCProcessLeave(const CCoreContext& context, std::uint32_t id) {
        return make<CProcessLeave>(context, id);
    }
    static CPacket* getCRelProcessLeave(const CRelCoreContext& context, std::uint32_t id) {
        return make<CRelProcessLeave>(context, id);
    }
    static CPacket* getCFunctionEnter(const CCoreContext& context, std::uint32_t function) {
        return make<CFunctionEnter>(context, function);
    }
    static CPacket* getCRelFunctionEnter(const CRelCoreContext& context, std::uint32_t function) {
        return make<CRelFunctionEnter>(context, function);
    }
    static CPacket* getCFunctionEnter(const CCoreContext& context, std::uint32_t source, std::uint32_t target) {
        return make<CFunctionEnter>(context, source, target);
    }
    static CPacket* getCRelFunctionEnter(const CRelCoreContext& context, std::uint32_t source, std::uint32_t target) {
        return make<CRelFunctionEnter>(context, source, target);
    }
    static CPacket* getCFunctionLeave(const CCoreContext& context, std::uint32_t function) {
        return make<CFunctionLeave>(context, function);
    }
    static CPacket* getCRelFunctionLeave(const CRelCoreContext& context, std::uint32_t function) {
        return make<CRelFunctionLeave>(context, function);
    }
    static CPacket* getCFunctionLeave(const CCoreContext& context, std::uint32_t source, std::uint32_t target) {
        return make<CFunctionLeave>(context, source, target);
    }
    static CPacket* getCRelFunctionLeave(const CRelCoreContext& context, std::uint32_t source, std::uint32_t target) {
        return make<CRelFunctionLeave>(context, source, target);
    }
    static CPacket* getCTypeDefine(const CCoreContext& context, std::uint32_t id, std::uint8_t size,
                                   const CCharStringSequence& name) {
        return make<CTypeDefine>(context, id, size, name);
    }
    static CPacket* getCRelTypeDefine(const CRelCoreContext& context, std::uint32_t id, std::uint8_t size,
                                      const CCharStringSequence& name) {
        return make<CRelTypeDefine>(context, id, size, name);
    }
    static CPacket* getCTypeUndefine(const CCoreContext& context, std::uint32_t id) {
        return make<CTypeUndefine>(context, id);
    }
    static CPacket* getCRelTypeUndefine(const CRelCoreContext& context, std::uint32_t id) {
        return make<CRelTypeUndefine>(context, id);
    }
    static CPacket* getCVariableUndefine(const CCoreContext& context, std::uint32_t id) {
        return make<CVariableUndefine>(context, id);
    }
    static CPacket* getCRelVariableUndefine(const CRelCoreContext& context, std::uint32_t id) {
        return make<CRelVariableUndefine>(context, id);
    }
    static CPacket* getCVariableDefine(const CCoreContext& context, std::uint32_t id, std::uint32_t type,
                                       const CCharStringSequence& name) {
        return make<CVariableDefine>(context, id, type, name);
    }
    static CPacket* getCRelVariableDefine(const CRelCoreContext& context, std::uint32_t id, std::uint32_t type,
                                          const CCharStringSequence& name) {
        return make<CRelVariableDefine>(context, id, type, name);
    }
    static CPacket* getCVariableRead(const CCoreContext& context, std::uint32_t id) {
        return make<CVariableRead>(context, id);
    }
    static CPacket* getCRelVariableRead(const CRelCoreContext& context, std::uint32_t id) {
        return make<CRelVariableRead>(context, id);
    }
    static CPacket* getCVariableRead(const CCoreContext& context, std::uint32_t id, const CData& data) {
        return make<CVariableRead>(context, id, data);
    }
    static CPacket* getCRelVariableRead(const CRelCoreContext& context, std::uint32_t id, const CData& data) {
        return make<CRelVariableRead>(context, id, data);
    }
    static CPacket* getCVariableWrite(const CCoreContext& context, std::uint32_t id) {
        return make<CVariableWrite>(context, id);
    }
    static CPacket* getCRelVariableWrite(const CRelCoreContext& context, std::uint32_t id) {
        return make<CRelVariableWrite>(context, id);
    }
    static CPacket* getCVariableWrite(const CCoreContext& context, std::uint32_t id, const CData& data) {
        return make<CVariableWrite>(context, id, data);
    }
    static CPacket* getCRelVariableWrite(const CRelCoreContext& context, std::uint32_t id, const CData& data) {
        return make<CRelVariableWrite>(context, id, data);
    }
    static CPacket* getCTraceBroken(const CCoreContext& context) { return make<CTraceBroken>(context); }
    static CPacket* getCSync(const CCoreContext& context) { return make<CSync>(context); }
    static CPacket* getCSync() { return make<CSync>(); }
    static CPacket* getCTimestamp(std::uint64_t timestamp) { return make<CTimestamp>(timestamp); }
    static CPacket* getCTimestamp(std::uint64_t timestamp, std::uint32_t hwCtx, std::uint64_t frequency) {
        return make<CTimestamp>(timestamp, hwCtx, frequency);
    }
    static CPacket* getCMessage(std::uint64_t timestamp, std::int8_t level, const CCharStringSequence& text) {
        return make<CMessage>(timestamp, level, text);
    }
    static CPacket* getCTraceEnabled(std::uint64_t frameLen, const SFrameConfig& config) {
        return make<CTraceEnabled>(frameLen, config);
    }
    static CPacket* getCTraceDisabled() { return make<CTraceDisabled>(); }
    static CPacket* getCEndOfTrace() { return make<CEndOfTrace>(); }
    static CPacket* getCFill(std::uint8_t count) { return make<CFill>(count); }
    static CPacket* getCReadData(const CCoreContext& context, std::uint64_t address) {
        return make<CReadData>(context, address);
    }
    static CPacket* getCRelReadData(const CRelCoreContext& context, std::uint64_t address) {
        return make<CRelReadData>(context, address);
    }
    static CPacket* getCReadData(const CCoreContext& context, std::uint64_t address, const CData& data) {
        return make<CReadData>(context, address, data);
    }
    static CPacket* getCRelReadData(const CRelCoreContext& context, std::uint64_t address, const CData& data) {
        return make<CRelReadData>(context, address, data);
    }
    static CPacket* getCWriteData(const CCoreContext& context, std::uint64_t address) {
        return make<CWriteData>(context, address);
    }
    static CPacket* getCRelWriteData(const CRelCoreContext& context, std::uint64_t address) {
        return make<CRelWriteData>(context, address);
    }
    static CPacket* getCWriteData(const CCoreContext& context, std::uint64_t address, const CData& data) {
        return make<CWriteData>(context, address, data);
    }
    static CPacket* getCRelWriteData(const CRelCoreContext& context, std::uint64_t address, const CData& data) {
        return make<CRelWriteData>(context, address, data);
    }
    static CPacket* getCCounterDefine(const CCoreContext& context, std::uint32_t id, std::uint8_t dimensions,
                                      const CCharStringSequence& name) {
        return make<CCounterDefine>(context, id, dimensions, name);
    }
    static CPacket* getCRelCounterDefine(const CRelCoreContext& context, std::uint32_t id, std::uint8_t dimensions,
                                         const CCharStringSequence& name) {
        return make<CRelCounterDefine>(context, id, dimensions, name);
    }
    static CPacket* getCCounterDefineUnit(const CCoreContext& context, std::uint32_t id, std::uint8_t dimensions,
                                          const CCharStringSequence& name) {
        return make<CCounterDefineUnit>(context, id, dimensions, name);
    }
    static CPacket* getCRelCounterDefineUnit(const CRelCoreContext& context, std::uint32_t id, std::uint8_t dimensions,
                                             const CCharStringSequence& name) {
        return make<CRelCounterDefineUnit>(context, id, dimensions, name);
    }
    static CPacket* getCCounterUndefine(const CCoreContext& context, std::uint32_t id) {
        return make<CCounterUndefine>(context, id);
    }
    static CPacket* getCRelCounterUndefine(const CRelCoreContext& context, std::uint32_t id) {
        return make<CRelCounterUndefine>(context, id);
    }
    static CPacket* getCCounterValueVar(const CCoreContext& context, std::uint32_t id, const TVarCounter_t& value,
                                        const TVarCounter_t& index) {
        return make<CCounterValueVar>(context, id, CCounterValueVarPayload(value, index));
    }
    static CPacket* getCRelCounterValueVar(const CRelCoreContext& context, std::uint32_t id, const TVarCounter_t& value,
                                           const TVarCounter_t& index) {
        return make<CRelCounterValueVar>(context, id, CCounterValueVarPayload(value, index));
    }
    static CPacket* getCCounterValue(const CCoreContext& context, std::uint32_t id, TCounter_t value) {
        return make<CCounterValue>(context, id, value);
    }
    static CPacket* getCRelCounterValue(const CRelCoreContext& context, std::uint32_t id, TCounter_t value) {
        return make<CRelCounterValue>(context, id, value);
    }
    static CPacket* getCCounterValueDim1(const CCoreContext& context, std::uint32_t id, TCounter_t value,
                                         TCounterIdx_t index) {
        return make<CCounterValueDim1>(context, id, value, index);
    }
    static CPacket* getCRelCounterValueDim1(const CRelCoreContext& context, std::uint32_t id, TCounter_t value,
                                            TCounterIdx_t index) {
        return make<CRelCounterValueDim1>(context, id, value, index);
    }
    static CPacket* getCCounterValueDim2(const CCoreContext& context, std::uint32_t id, TCounter_t value,
                                         TCounterIdx_t index1, TCounterIdx_t index2) {
        return make<CCounterValueDim2>(context, id, value, index1, index2);
    }
    static CPacket* getCRelCounterValueDim2(const CRelCoreContext& context, std::uint32_t id, TCounter_t value,
                                            TCounterIdx_t index1, TCounterIdx_t index2) {
        return make<CRelCounterValueDim2>(context, id, value, index1, index2);
    }
    static CPacket* getCCounterValueDimN(const CCoreContext& context, std::uint32_t id, std::uint8_t count,
                                         TCounter_t value, const TCounterIdx_t* indices) {
        return make<CCounterValueDimN>(context, id, value, CCounterIndexDimN(count, indices));
    }
    static CPacket* getCRelCounterValueDimN(const CRelCoreContext& context, std::uint32_t id, std::uint8_t count,
                                            TCounter_t value, const TCounterIdx_t* indices) {
        return make<CRelCounterValueDimN>(context, id, value, CCounterIndexDimN(count, indices));
    }
    static CPacket* getCBusData(const CBusContext& context, const CBusDataSignals& signals, const CData& data) {
        return make<CBusData>(context, signals, data);
    }
    static CPacket* getCRelBusData(const CRelBusContext& context, const CBusDataSignals& signals, const CData& data) {
        return make<CRelBusData>(context, signals, data);
    }
    static CPacket* getCBusAddrData(const CBusContext& context, const CBusDataSignals& signals, std::uint64_t address,
                                    const CData& data) {
        return make<CBusAddrData>(context, signals, address, data);
    }
    static CPacket* getCRelBusAddrData(const CRelBusContext& context, const CBusDataSignals& signals,
                                       std::uint64_t address, const CData& data) {
        return make<CRelBusAddrData>(context, signals, address, data);
    }
    static CPacket* getCSignal(const CBusContext& context, const CSignalMask& value, const CSignalMask& mask) {
        return make<CSignal>(context, value, mask);
    }
    static CPacket* getCRelSignal(const CRelBusContext& context, const CSignalMask& value, const CSignalMask& mask) {
        return make<CRelSignal>(context, value, mask);
    }
    static CPacket* getCSignalDefine(const CBusContext& context, const std::uint32_t& id, const CSignalMask& mask,
                                     const CCharStringSequence& name) {
        return make<CSignalDefine>(context, id, mask, name);
    }
    static CPacket* getCRelSignalDefine(const CRelBusContext& context, const std::uint32_t& id, const CSignalMask& mask,
                                        const CCharStringSequence& name) {
        return make<CRelSignalDefine>(context, id, mask, name);
    }
    static CPacket* getCSignalUndefine(const CBusContext& context, const std::uint32_t& id) {
        return make<CSignalUndefine>(context, id);
    }
    static CPacket* getCRelSignalUndefine(const CRelBusContext& context, const std::uint32_t& id) {
        return make<CRelSignalUndefine>(context, id);
    }
    static CPacket* getCSystemData(const CSystemContext& context, const CData& data) {
        return make<CSystemData>(context, data);
    }
    static CPacket* getCRelSystemData(const CRelSystemContext& context, const CData& data) {
        return make<CRelSystemData>(context, data);
    }
    static CPacket* getCBusSync(const CBusContext& context) { return make<CBusSync>(context); }
    static CPacket* getCSystemSync(const CSystemContext& context) { return make<CSystemSync>(context); }
    static CPacket* getCEvent(const CCoreContext& context, std::uint32_t id) { return make<CEvent>(context, id); }
    static CPacket* getCEvent(const CCoreContext& context, std::uint32_t id, const CData& data) {
        return make<CEvent>(context, id, data);
    }
    static CPacket* getCEventDefine(std::uint32_t id, EEventType type) { return make<CEventDefine>(id, type); }
    static CPacket* getCEventDefine(std::uint32_t id, EEventType type, const CCharStringSequence& name) {
        return make<CEventDefine>(id, type, name);
    }
    static CPacket* getCEventUndefine(std::uint32_t id) { return make<CEventUndefine>(id); }
    static CPacket* getCStateMachineDefine(std::uint32_t machine, const CCharStringSequence& definition) {
        return make<CStateMachineDefine>(machine, definition);
    }
    static CPacket* getCStateMachineInstanceDefine(std::uint32_t machine, std::uint32_t instance,
                                                   const CCharStringSequence& name) {
        return make<CStateMachineInstanceDefine>(machine, instance, name);
    }
    static CPacket* getCStateDefine(std::uint32_t machine, std::uint32_t state, const CCharStringSequence& name) {
        return make<CStateDefine>(machine, state, name);
    }
    static CPacket* getCTransitionDefine(std::uint32_t machine, std::uint32_t source, std::uint32_t target,
                                         std::uint32_t transition, const CCharStringSequence& name) {
        return make<CTransitionDefine>(machine, source, target, transition, name);
    }
    static CPacket* getCStateMachineUndefine(std::uint32_t machine) { return make<CStateMachineUndefine>(machine); }
    static CPacket* getCInitialState(std::uint32_t machine, std::uint32_t instance, std::uint32_t state,
                                     std::uint32_t hwCtx, std::uint64_t tick) {
        return make<CInitialState>(machine, instance, state, hwCtx, tick);
    }
    static CPacket* getCTransition(std::uint32_t machine, std::uint32_t instance, std::uint32_t transition,
                                   std::uint32_t hwCtx, std::uint64_t tick, const CData& data) {
        return make<CTransition>(machine, instance, transition, hwCtx, tick, data);
    }
    static CPacket* getCTraceEnabled(std::uint64_t frameLen, TraceExpansion expansion) {
        return make<CTraceEnabled>(frameLen, expansion, false);
    }
    /// A text of any length: not a CCharString, but a CCharStringSequence, which writes itself as CharString packets.
    static CPacket* getCCharString(const unsigned char* bytes, unsigned length) {
        return make<CCharStringSequence>(bytes, length);
    }
};

} // namespace Quorvex
