#include "quorvex/factory/PacketFactory.h"

#include "quorvex/factory/SpareNodes.h"
#include "quorvex/format/MessageQueue.h"
#include "quorvex/packets/KindFunctions.h"

#include <array>
#include <istream>

namespace Quorvex {

namespace {

/// How packets of one kind change between forms whose contexts are told by `Context`. Null: they do not.
template <class Context> struct Conversion {
    using Function = CPacket* (*)(const CPacket&, const Context& last);
    Function compress = nullptr;
    Function decompress = nullptr;
};

struct Row : Conversion<CCoreContext>, Conversion<CBusContext>, Conversion<CSystemContext> {
    CPacket* (*create)() = nullptr;
    CPacket* (*readStream)(const CPacketHeader&, std::istream&) = nullptr;
    CPacket* (*readBuffer)(const CPacketHeader&, const char*, unsigned, unsigned&) = nullptr;
    CPacket* (*copy)(const CPacket&) = nullptr;
};

using Table = std::array<Row, 256>;

template <class P> constexpr void addKind(Table& table) {
    Row& row = table[P::kCode];
    row.create = KindFunctions<P>::create;
    row.readStream = KindFunctions<P>::read;
    row.readBuffer = KindFunctions<P>::read;
    row.copy = KindFunctions<P>::copy;
}

template <class Context> constexpr Conversion<Context>& conversion(Row& row) {
    return row;
}

template <class Abs, class Rel> constexpr void addPair(Table& table) {
    using Context = typename Abs::Context;
    conversion<Context>(table[Abs::kCode]).compress = PairFunctions<Abs, Rel>::toRelative;
    conversion<Context>(table[Rel::kCode]).decompress = PairFunctions<Abs, Rel>::toAbsolute;
}

constexpr Table makeTable() {
    Table table{};
#define QUORVEX_PACKET(name) addKind<C##name>(table);
#define QUORVEX_ABSOLUTE_PACKET(name)                                                                                  \
    addKind<C##name>(table);                                                                                           \
    addPair<C##name, CRel##name>(table);
#include "quorvex/packets/Packets.def"
    return table;
}

constexpr Table kTable = makeTable();

/// The row of a code; null when it has no class.
const Row* find(tagTCode code) {
    return code < kTable.size() && kTable[code].create ? &kTable[code] : nullptr;
}

/// Runs an allocating step with the library's own exception for a lack of memory.
template <class Step> CPacket* allocating(Step&& step) {
    try {
        return step();
    } catch (const std::bad_alloc&) {
        CQVXException::ThrowOutOfMemory();
    }
}

/// Changes the form of a packet by one of the two functions of a row.
template <auto function, class Context> CPacket* convert(const CPacket* packet, const Context& last) {
    const unsigned code = packet ? packet->TraceCode() : Invalid;
    const Conversion<Context>& conversion = kTable[code < kTable.size() ? code : Invalid];
    try {
        return conversion.*function ? (conversion.*function)(*packet, last) : nullptr;
    } catch (...) {
        return nullptr;
    }
}

} // namespace

CPacket* CPacketFactory::getCPacket(tagTCode code) {
    const Row* row = find(code);
    return row ? allocating(row->create) : nullptr;
}

CPacket* CPacketFactory::getCPacket(const CPacketHeader& header, std::istream& in) {
    const Row* row = find(header.TraceCode());
    return row ? allocating([&] { return row->readStream(header, in); }) : nullptr;
}

CPacket* CPacketFactory::getCPacket(const CPacketHeader& header, const char* buffer, unsigned size,
                                    unsigned& consumed) {
    const Row* row = find(header.TraceCode());
    return row ? allocating([&] { return row->readBuffer(header, buffer, size, consumed); }) : nullptr;
}

CPacket* CPacketFactory::getCPacket(std::istream& in) {
    CPacketHeader header;
    if (!in.good() || !header.read(in))
        return nullptr;
    return getCPacket(header, in);
}

[[gnu::flatten]] CPacket* CPacketFactory::getCPacket(const char* buffer, unsigned size, unsigned& consumed) {
    consumed = 0;
    CPacketHeader header;
    if (!header.read(buffer, size))
        return nullptr;
    CPacket* packet = getCPacket(header, buffer + CPacketHeader::Len(), size - CPacketHeader::Len(), consumed);
    if (packet)
        consumed += CPacketHeader::Len();
    return packet;
}

bool CPacketFactory::releaseCPacket(CPacket** packet) {
    if (!packet || !*packet)
        return false;
    delete std::exchange(*packet, nullptr);
    return true;
}

bool CPacketFactory::release(std::list<CPacket*>& packets) {
    try {
        for (CPacket*& packet : packets)
            delete std::exchange(packet, nullptr);
        detail::clear(packets);
        return true;
    } catch (...) {
        return false;
    }
}

CPacket* CPacketFactory::duplicate(CPacket* packet) {
    const Row* row = packet ? find(packet->TraceCode()) : nullptr;
    return row ? allocating([&] { return row->copy(*packet); }) : nullptr;
}

bool CPacketFactory::duplicate(std::list<CPacket*>& from, std::list<CPacket*>& to) {
    for (CPacket* packet : from) {
        if (!packet)
            continue;
        CPacket* copy = duplicate(packet);
        if (!copy) {
            logError("CPacketFactory: Error during duplication of packets!");
            return false;
        }
        to.push_back(copy);
    }
    return true;
}

CPacket* CPacketFactory::compress(CPacket* packet, const CCoreContext& last) {
    return convert<&Conversion<CCoreContext>::compress>(packet, last);
}

CPacket* CPacketFactory::compress(CPacket* packet, const CBusContext& last) {
    return convert<&Conversion<CBusContext>::compress>(packet, last);
}

CPacket* CPacketFactory::compress(CPacket* packet, const CSystemContext& last) {
    return convert<&Conversion<CSystemContext>::compress>(packet, last);
}

CPacket* CPacketFactory::decompress(CPacket* packet, const CCoreContext& last) {
    return convert<&Conversion<CCoreContext>::decompress>(packet, last);
}

CPacket* CPacketFactory::decompress(CPacket* packet, const CBusContext& last) {
    return convert<&Conversion<CBusContext>::decompress>(packet, last);
}

CPacket* CPacketFactory::decompress(CPacket* packet, const CSystemContext& last) {
    return convert<&Conversion<CSystemContext>::decompress>(packet, last);
}

CPacket* CPacketFactory::getCExecInsn(const CCoreContext& context) {
    return make<CExecInsn>(context);
}

CPacket* CPacketFactory::getCRelExecInsn(const CRelCoreContext& context) {
    return make<CRelExecInsn>(context);
}

CPacket* CPacketFactory::getCNonExecInsn(const CCoreContext& context) {
    return make<CNonExecInsn>(context);
}

CPacket* CPacketFactory::getCRelNonExecInsn(const CRelCoreContext& context) {
    return make<CRelNonExecInsn>(context);
}

CPacket* CPacketFactory::getCDirectBranch(const CCoreContext& context, std::uint64_t target) {
    return make<CDirectBranch>(context, target);
}

CPacket* CPacketFactory::getCRelDirectBranch(const CRelCoreContext& context, std::uint64_t target) {
    return make<CRelDirectBranch>(context, target);
}

CPacket* CPacketFactory::getCIndirectBranch(const CCoreContext& context, std::uint64_t target) {
    return make<CIndirectBranch>(context, target);
}

CPacket* CPacketFactory::getCRelIndirectBranch(const CRelCoreContext& context, std::uint64_t target) {
    return make<CRelIndirectBranch>(context, target);
}

CPacket* CPacketFactory::getCHWExceptionLeave(const CCoreContext& context, std::uint32_t exception) {
    return make<CHWExceptionLeave>(context, exception);
}

CPacket* CPacketFactory::getCRelHWExceptionLeave(const CRelCoreContext& context, std::uint32_t exception) {
    return make<CRelHWExceptionLeave>(context, exception);
}

CPacket* CPacketFactory::getCHWExceptionEnter(const CCoreContext& context, std::uint32_t exception) {
    return make<CHWExceptionEnter>(context, exception);
}

CPacket* CPacketFactory::getCRelHWExceptionEnter(const CRelCoreContext& context, std::uint32_t exception) {
    return make<CRelHWExceptionEnter>(context, exception);
}

CPacket* CPacketFactory::getCFunctionDefine(const CCoreContext& context, std::uint32_t id,
                                            const CCharStringSequence& name) {
    return make<CFunctionDefine>(context, id, name);
}

CPacket* CPacketFactory::getCRelFunctionDefine(const CRelCoreContext& context, std::uint32_t id,
                                               const CCharStringSequence& name) {
    return make<CRelFunctionDefine>(context, id, name);
}

CPacket* CPacketFactory::getCProcessDefine(const CCoreContext& context, std::uint32_t id,
                                           const CCharStringSequence& name) {
    return make<CProcessDefine>(context, id, name);
}

CPacket* CPacketFactory::getCRelProcessDefine(const CRelCoreContext& context, std::uint32_t id,
                                              const CCharStringSequence& name) {
    return make<CRelProcessDefine>(context, id, name);
}

CPacket* CPacketFactory::getCFunctionUndefine(const CCoreContext& context, std::uint32_t id) {
    return make<CFunctionUndefine>(context, id);
}

CPacket* CPacketFactory::getCRelFunctionUndefine(const CRelCoreContext& context, std::uint32_t id) {
    return make<CRelFunctionUndefine>(context, id);
}

CPacket* CPacketFactory::getCProcessUndefine(const CCoreContext& context, std::uint32_t id) {
    return make<CProcessUndefine>(context, id);
}

CPacket* CPacketFactory::getCRelProcessUndefine(const CRelCoreContext& context, std::uint32_t id) {
    return make<CRelProcessUndefine>(context, id);
}

CPacket* CPacketFactory::getCProcessEnter(const CCoreContext& context, std::uint32_t id) {
    return make<CProcessEnter>(context, id);
}

CPacket* CPacketFactory::getCRelProcessEnter(const CRelCoreContext& context, std::uint32_t id) {
    return make<CRelProcessEnter>(context, id);
}

CPacket* CPacketFactory::getCProcessLeave(const CCoreContext& context, std::uint32_t id) {
    return make<CProcessLeave>(context, id);
}

CPacket* CPacketFactory::getCRelProcessLeave(const CRelCoreContext& context, std::uint32_t id) {
    return make<CRelProcessLeave>(context, id);
}

CPacket* CPacketFactory::getCFunctionEnter(const CCoreContext& context, std::uint32_t function) {
    return make<CFunctionEnter>(context, function);
}

CPacket* CPacketFactory::getCRelFunctionEnter(const CRelCoreContext& context, std::uint32_t function) {
    return make<CRelFunctionEnter>(context, function);
}

CPacket* CPacketFactory::getCFunctionEnter(const CCoreContext& context, std::uint32_t source, std::uint32_t target) {
    return make<CFunctionEnter>(context, source, target);
}

CPacket* CPacketFactory::getCRelFunctionEnter(const CRelCoreContext& context, std::uint32_t source,
                                              std::uint32_t target) {
    return make<CRelFunctionEnter>(context, source, target);
}

CPacket* CPacketFactory::getCFunctionLeave(const CCoreContext& context, std::uint32_t function) {
    return make<CFunctionLeave>(context, function);
}

CPacket* CPacketFactory::getCRelFunctionLeave(const CRelCoreContext& context, std::uint32_t function) {
    return make<CRelFunctionLeave>(context, function);
}

CPacket* CPacketFactory::getCFunctionLeave(const CCoreContext& context, std::uint32_t source, std::uint32_t target) {
    return make<CFunctionLeave>(context, source, target);
}

CPacket* CPacketFactory::getCRelFunctionLeave(const CRelCoreContext& context, std::uint32_t source,
                                              std::uint32_t target) {
    return make<CRelFunctionLeave>(context, source, target);
}

CPacket* CPacketFactory::getCTypeDefine(const CCoreContext& context, std::uint32_t id, std::uint8_t size,
                                        const CCharStringSequence& name) {
    return make<CTypeDefine>(context, id, size, name);
}

CPacket* CPacketFactory::getCRelTypeDefine(const CRelCoreContext& context, std::uint32_t id, std::uint8_t size,
                                           const CCharStringSequence& name) {
    return make<CRelTypeDefine>(context, id, size, name);
}

CPacket* CPacketFactory::getCTypeUndefine(const CCoreContext& context, std::uint32_t id) {
    return make<CTypeUndefine>(context, id);
}

CPacket* CPacketFactory::getCRelTypeUndefine(const CRelCoreContext& context, std::uint32_t id) {
    return make<CRelTypeUndefine>(context, id);
}

CPacket* CPacketFactory::getCVariableUndefine(const CCoreContext& context, std::uint32_t id) {
    return make<CVariableUndefine>(context, id);
}

CPacket* CPacketFactory::getCRelVariableUndefine(const CRelCoreContext& context, std::uint32_t id) {
    return make<CRelVariableUndefine>(context, id);
}

CPacket* CPacketFactory::getCVariableDefine(const CCoreContext& context, std::uint32_t id, std::uint32_t type,
                                            const CCharStringSequence& name) {
    return make<CVariableDefine>(context, id, type, name);
}

CPacket* CPacketFactory::getCRelVariableDefine(const CRelCoreContext& context, std::uint32_t id, std::uint32_t type,
                                               const CCharStringSequence& name) {
    return make<CRelVariableDefine>(context, id, type, name);
}

CPacket* CPacketFactory::getCVariableRead(const CCoreContext& context, std::uint32_t id) {
    return make<CVariableRead>(context, id);
}

CPacket* CPacketFactory::getCRelVariableRead(const CRelCoreContext& context, std::uint32_t id) {
    return make<CRelVariableRead>(context, id);
}

CPacket* CPacketFactory::getCVariableRead(const CCoreContext& context, std::uint32_t id, const CData& data) {
    return make<CVariableRead>(context, id, data);
}

CPacket* CPacketFactory::getCRelVariableRead(const CRelCoreContext& context, std::uint32_t id, const CData& data) {
    return make<CRelVariableRead>(context, id, data);
}

CPacket* CPacketFactory::getCVariableWrite(const CCoreContext& context, std::uint32_t id) {
    return make<CVariableWrite>(context, id);
}

CPacket* CPacketFactory::getCRelVariableWrite(const CRelCoreContext& context, std::uint32_t id) {
    return make<CRelVariableWrite>(context, id);
}

CPacket* CPacketFactory::getCVariableWrite(const CCoreContext& context, std::uint32_t id, const CData& data) {
    return make<CVariableWrite>(context, id, data);
}

CPacket* CPacketFactory::getCRelVariableWrite(const CRelCoreContext& context, std::uint32_t id, const CData& data) {
    return make<CRelVariableWrite>(context, id, data);
}

CPacket* CPacketFactory::getCTraceBroken(const CCoreContext& context) {
    return make<CTraceBroken>(context);
}

CPacket* CPacketFactory::getCSync(const CCoreContext& context) {
    return make<CSync>(context);
}

CPacket* CPacketFactory::getCSync() {
    return make<CSync>();
}

CPacket* CPacketFactory::getCTimestamp(std::uint64_t timestamp) {
    return make<CTimestamp>(timestamp);
}

CPacket* CPacketFactory::getCTimestamp(std::uint64_t timestamp, std::uint32_t hwCtx, std::uint64_t frequency) {
    return make<CTimestamp>(timestamp, hwCtx, frequency);
}

CPacket* CPacketFactory::getCMessage(std::uint64_t timestamp, std::int8_t level, const CCharStringSequence& text) {
    return make<CMessage>(timestamp, level, text);
}

CPacket* CPacketFactory::getCTraceEnabled(std::uint64_t frameLen, const SFrameConfig& config) {
    return make<CTraceEnabled>(frameLen, config);
}

CPacket* CPacketFactory::getCTraceDisabled() {
    return make<CTraceDisabled>();
}

CPacket* CPacketFactory::getCEndOfTrace() {
    return make<CEndOfTrace>();
}

CPacket* CPacketFactory::getCFill(std::uint8_t count) {
    return make<CFill>(count);
}

CPacket* CPacketFactory::getCReadData(const CCoreContext& context, std::uint64_t address) {
    return make<CReadData>(context, address);
}

CPacket* CPacketFactory::getCRelReadData(const CRelCoreContext& context, std::uint64_t address) {
    return make<CRelReadData>(context, address);
}

CPacket* CPacketFactory::getCReadData(const CCoreContext& context, std::uint64_t address, const CData& data) {
    return make<CReadData>(context, address, data);
}

CPacket* CPacketFactory::getCRelReadData(const CRelCoreContext& context, std::uint64_t address, const CData& data) {
    return make<CRelReadData>(context, address, data);
}

CPacket* CPacketFactory::getCWriteData(const CCoreContext& context, std::uint64_t address) {
    return make<CWriteData>(context, address);
}

CPacket* CPacketFactory::getCRelWriteData(const CRelCoreContext& context, std::uint64_t address) {
    return make<CRelWriteData>(context, address);
}

CPacket* CPacketFactory::getCWriteData(const CCoreContext& context, std::uint64_t address, const CData& data) {
    return make<CWriteData>(context, address, data);
}

CPacket* CPacketFactory::getCRelWriteData(const CRelCoreContext& context, std::uint64_t address, const CData& data) {
    return make<CRelWriteData>(context, address, data);
}

CPacket* CPacketFactory::getCCounterDefine(const CCoreContext& context, std::uint32_t id, std::uint8_t dimensions,
                                           const CCharStringSequence& name) {
    return make<CCounterDefine>(context, id, dimensions, name);
}

CPacket* CPacketFactory::getCRelCounterDefine(const CRelCoreContext& context, std::uint32_t id, std::uint8_t dimensions,
                                              const CCharStringSequence& name) {
    return make<CRelCounterDefine>(context, id, dimensions, name);
}

CPacket* CPacketFactory::getCCounterDefineUnit(const CCoreContext& context, std::uint32_t id, std::uint8_t dimensions,
                                               const CCharStringSequence& name) {
    return make<CCounterDefineUnit>(context, id, dimensions, name);
}

CPacket* CPacketFactory::getCRelCounterDefineUnit(const CRelCoreContext& context, std::uint32_t id,
                                                  std::uint8_t dimensions, const CCharStringSequence& name) {
    return make<CRelCounterDefineUnit>(context, id, dimensions, name);
}

CPacket* CPacketFactory::getCCounterUndefine(const CCoreContext& context, std::uint32_t id) {
    return make<CCounterUndefine>(context, id);
}

CPacket* CPacketFactory::getCRelCounterUndefine(const CRelCoreContext& context, std::uint32_t id) {
    return make<CRelCounterUndefine>(context, id);
}

CPacket* CPacketFactory::getCCounterValueVar(const CCoreContext& context, std::uint32_t id, const TVarCounter_t& value,
                                             const TVarCounter_t& index) {
    return make<CCounterValueVar>(context, id, CCounterValueVarPayload(value, index));
}

CPacket* CPacketFactory::getCRelCounterValueVar(const CRelCoreContext& context, std::uint32_t id,
                                                const TVarCounter_t& value, const TVarCounter_t& index) {
    return make<CRelCounterValueVar>(context, id, CCounterValueVarPayload(value, index));
}

CPacket* CPacketFactory::getCCounterValue(const CCoreContext& context, std::uint32_t id, TCounter_t value) {
    return make<CCounterValue>(context, id, value);
}

CPacket* CPacketFactory::getCRelCounterValue(const CRelCoreContext& context, std::uint32_t id, TCounter_t value) {
    return make<CRelCounterValue>(context, id, value);
}

CPacket* CPacketFactory::getCCounterValueDim1(const CCoreContext& context, std::uint32_t id, TCounter_t value,
                                              TCounterIdx_t index) {
    return make<CCounterValueDim1>(context, id, value, index);
}

CPacket* CPacketFactory::getCRelCounterValueDim1(const CRelCoreContext& context, std::uint32_t id, TCounter_t value,
                                                 TCounterIdx_t index) {
    return make<CRelCounterValueDim1>(context, id, value, index);
}

CPacket* CPacketFactory::getCCounterValueDim2(const CCoreContext& context, std::uint32_t id, TCounter_t value,
                                              TCounterIdx_t index1, TCounterIdx_t index2) {
    return make<CCounterValueDim2>(context, id, value, index1, index2);
}

CPacket* CPacketFactory::getCRelCounterValueDim2(const CRelCoreContext& context, std::uint32_t id, TCounter_t value,
                                                 TCounterIdx_t index1, TCounterIdx_t index2) {
    return make<CRelCounterValueDim2>(context, id, value, index1, index2);
}

CPacket* CPacketFactory::getCCounterValueDimN(const CCoreContext& context, std::uint32_t id, std::uint8_t count,
                                              TCounter_t value, const TCounterIdx_t* indices) {
    return make<CCounterValueDimN>(context, id, value, CCounterIndexDimN(count, indices));
}

CPacket* CPacketFactory::getCRelCounterValueDimN(const CRelCoreContext& context, std::uint32_t id, std::uint8_t count,
                                                 TCounter_t value, const TCounterIdx_t* indices) {
    return make<CRelCounterValueDimN>(context, id, value, CCounterIndexDimN(count, indices));
}

CPacket* CPacketFactory::getCBusData(const CBusContext& context, const CBusDataSignals& signals, const CData& data) {
    return make<CBusData>(context, signals, data);
}

CPacket* CPacketFactory::getCRelBusData(const CRelBusContext& context, const CBusDataSignals& signals,
                                        const CData& data) {
    return make<CRelBusData>(context, signals, data);
}

CPacket* CPacketFactory::getCBusAddrData(const CBusContext& context, const CBusDataSignals& signals,
                                         std::uint64_t address, const CData& data) {
    return make<CBusAddrData>(context, signals, address, data);
}

CPacket* CPacketFactory::getCRelBusAddrData(const CRelBusContext& context, const CBusDataSignals& signals,
                                            std::uint64_t address, const CData& data) {
    return make<CRelBusAddrData>(context, signals, address, data);
}

CPacket* CPacketFactory::getCSignal(const CBusContext& context, const CSignalMask& value, const CSignalMask& mask) {
    return make<CSignal>(context, value, mask);
}

CPacket* CPacketFactory::getCRelSignal(const CRelBusContext& context, const CSignalMask& value,
                                       const CSignalMask& mask) {
    return make<CRelSignal>(context, value, mask);
}

CPacket* CPacketFactory::getCSignalDefine(const CBusContext& context, const std::uint32_t& id, const CSignalMask& mask,
                                          const CCharStringSequence& name) {
    return make<CSignalDefine>(context, id, mask, name);
}

CPacket* CPacketFactory::getCRelSignalDefine(const CRelBusContext& context, const std::uint32_t& id,
                                             const CSignalMask& mask, const CCharStringSequence& name) {
    return make<CRelSignalDefine>(context, id, mask, name);
}

CPacket* CPacketFactory::getCSignalUndefine(const CBusContext& context, const std::uint32_t& id) {
    return make<CSignalUndefine>(context, id);
}

CPacket* CPacketFactory::getCRelSignalUndefine(const CRelBusContext& context, const std::uint32_t& id) {
    return make<CRelSignalUndefine>(context, id);
}

CPacket* CPacketFactory::getCSystemData(const CSystemContext& context, const CData& data) {
    return make<CSystemData>(context, data);
}

CPacket* CPacketFactory::getCRelSystemData(const CRelSystemContext& context, const CData& data) {
    return make<CRelSystemData>(context, data);
}

CPacket* CPacketFactory::getCBusSync(const CBusContext& context) {
    return make<CBusSync>(context);
}

CPacket* CPacketFactory::getCSystemSync(const CSystemContext& context) {
    return make<CSystemSync>(context);
}

CPacket* CPacketFactory::getCEvent(const CCoreContext& context, std::uint32_t id) {
    return make<CEvent>(context, id);
}

CPacket* CPacketFactory::getCEvent(const CCoreContext& context, std::uint32_t id, const CData& data) {
    return make<CEvent>(context, id, data);
}

CPacket* CPacketFactory::getCEventDefine(std::uint32_t id, EEventType type) {
    return make<CEventDefine>(id, type);
}

CPacket* CPacketFactory::getCEventDefine(std::uint32_t id, EEventType type, const CCharStringSequence& name) {
    return make<CEventDefine>(id, type, name);
}

CPacket* CPacketFactory::getCEventUndefine(std::uint32_t id) {
    return make<CEventUndefine>(id);
}

CPacket* CPacketFactory::getCStateMachineDefine(std::uint32_t machine, const CCharStringSequence& definition) {
    return make<CStateMachineDefine>(machine, definition);
}

CPacket* CPacketFactory::getCStateMachineInstanceDefine(std::uint32_t machine, std::uint32_t instance,
                                                        const CCharStringSequence& name) {
    return make<CStateMachineInstanceDefine>(machine, instance, name);
}

CPacket* CPacketFactory::getCStateDefine(std::uint32_t machine, std::uint32_t state, const CCharStringSequence& name) {
    return make<CStateDefine>(machine, state, name);
}

CPacket* CPacketFactory::getCTransitionDefine(std::uint32_t machine, std::uint32_t source, std::uint32_t target,
                                              std::uint32_t transition, const CCharStringSequence& name) {
    return make<CTransitionDefine>(machine, source, target, transition, name);
}

CPacket* CPacketFactory::getCStateMachineUndefine(std::uint32_t machine) {
    return make<CStateMachineUndefine>(machine);
}

CPacket* CPacketFactory::getCInitialState(std::uint32_t machine, std::uint32_t instance, std::uint32_t state,
                                          std::uint32_t hwCtx, std::uint64_t tick) {
    return make<CInitialState>(machine, instance, state, hwCtx, tick);
}

CPacket* CPacketFactory::getCTransition(std::uint32_t machine, std::uint32_t instance, std::uint32_t transition,
                                        std::uint32_t hwCtx, std::uint64_t tick, const CData& data) {
    return make<CTransition>(machine, instance, transition, hwCtx, tick, data);
}

CPacket* CPacketFactory::getCTraceEnabled(std::uint64_t frameLen, TraceExpansion expansion) {
    return make<CTraceEnabled>(frameLen, expansion, false);
}

CPacket* CPacketFactory::getCCharString(const unsigned char* bytes, unsigned length) {
    return make<CCharStringSequence>(bytes, length);
}

} // namespace Quorvex
