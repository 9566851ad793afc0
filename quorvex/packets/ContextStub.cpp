#include "quorvex/packets/ContextStub.h"

#include "quorvex/packets/PacketProtocol.h"
#include "quorvex/packets/TraceControlPackets.h"

#include <cassert>

namespace Quorvex {

namespace {

constexpr std::uint32_t kNone32 = 0xFFFFFFFF;
constexpr std::uint8_t kNone8 = 0xFF;

bool isIn(tagTCode code, unsigned first, unsigned last) {
    return code >= first && code <= last;
}

/// The codes whose single core-context fields are answered: not those of types and variables.
bool showsCoreFields(tagTCode code) {
    return isIn(code, ExecInsn, HWExceptionEnter) || code == ReadData || code == WriteData ||
           isIn(code, CounterDefine, CounterValueDimN) || code == Event || code == TraceBroken || code == Sync ||
           isIn(code, FunctionDefine, ProcessLeave);
}

bool showsRelCoreFields(tagTCode code) {
    return isIn(code, RelExecInsn, RelHWExceptionEnter) || code == RelReadData || code == RelWriteData ||
           isIn(code, RelCounterDefine, RelCounterValueDimN) || isIn(code, RelFunctionDefine, RelProcessLeave);
}

/// The packet's context, seen as the class that its code promises; null when `carries` is false.
template <class Context> const Context* view(const CPacket* packet, bool carries) {
    if (!carries)
        return nullptr;
    assert(dynamic_cast<const ContextPacket<Context>*>(packet));
    return static_cast<const ContextPacket<Context>*>(packet);
}

const CCoreContext* core(const CPacket* packet) {
    return view<CCoreContext>(packet, packet && showsCoreFields(packet->TraceCode()));
}

const CBusContext* bus(const CPacket* packet) {
    return view<CBusContext>(packet, packet && CContextStub::hasBusContext(packet->TraceCode()));
}

const CSystemContext* system(const CPacket* packet) {
    return view<CSystemContext>(packet, packet && CContextStub::hasSystemContext(packet->TraceCode()));
}

const CRelCoreContext* relCore(const CPacket* packet) {
    return view<CRelCoreContext>(packet, packet && showsRelCoreFields(packet->TraceCode()));
}

} // namespace

std::uint64_t CContextStub::Tick(const CPacket* packet) {
    if (const auto* context = core(packet))
        return context->Tick();
    if (const auto* context = bus(packet))
        return context->Tick();
    if (const auto* context = system(packet))
        return context->Tick();
    return kUnknown64;
}

std::uint32_t CContextStub::HWCtx(const CPacket* packet) {
    if (const auto* context = core(packet))
        return context->HWCtx();
    if (const auto* context = bus(packet))
        return context->HWCtx();
    if (packet && packet->TraceCode() == Timestamp) {
        const auto* timestamp = static_cast<const CTimestamp*>(packet);
        return timestamp->is_HWCtx_valid() ? timestamp->HWCtx() : kNone32;
    }
    return kNone32;
}

std::uint32_t CContextStub::SWCtx(const CPacket* packet) {
    const auto* context = core(packet);
    return context ? context->SWCtx() : kNone32;
}

std::uint32_t CContextStub::Master(const CPacket* packet) {
    if (const auto* context = bus(packet))
        return context->Master();
    const auto* context = system(packet);
    return context ? context->Master() : kNone32;
}

std::uint32_t CContextStub::Channel(const CPacket* packet) {
    const auto* context = system(packet);
    return context ? context->Channel() : kNone32;
}

std::uint64_t CContextStub::CurrAddr(const CPacket* packet) {
    const auto* context = core(packet);
    return context ? context->CurrAddr() : kUnknown64;
}

std::uint8_t CContextStub::RelTick(const CPacket* packet) {
    if (const auto* context = relCore(packet))
        return context->RelTick();
    if (const auto* context = view<CRelBusContext>(packet, packet && isIn(packet->TraceCode(), RelBusData, RelSignal)))
        return context->RelTick();
    const auto* context = view<CRelSystemContext>(packet, packet && packet->TraceCode() == RelSystemData);
    return context ? context->RelTick() : kNone8;
}

std::uint8_t CContextStub::RelCurrAddr(const CPacket* packet) {
    const auto* context = relCore(packet);
    return context ? context->RelCurrAddr() : kNone8;
}

CCoreContext CContextStub::CoreCtx(const CPacket* packet) {
    const auto* context = view<CCoreContext>(packet, packet && hasCoreContext(packet->TraceCode()));
    return context ? *context : CCoreContext();
}

CBusContext CContextStub::BusCtx(const CPacket* packet) {
    const auto* context = bus(packet);
    return context ? *context : CBusContext();
}

CSystemContext CContextStub::SystemCtx(const CPacket* packet) {
    const auto* context = system(packet);
    return context ? *context : CSystemContext();
}

bool CContextStub::hasContext(tagTCode code) {
    return hasCoreContext(code) || hasBusContext(code) || hasSystemContext(code);
}

bool CContextStub::hasCoreContext(tagTCode code) {
    // Planned kinds are counted in: their layouts begin with the core context.
    return showsCoreFields(code) || isIn(code, LineDefine, SWExceptionLeave) || isIn(code, TypeDefine, ExpressionExec);
}

bool CContextStub::hasBusContext(tagTCode code) {
    return code == BusSync || isIn(code, BusData, Signal);
}

bool CContextStub::hasSystemContext(tagTCode code) {
    return code == SystemSync || code == SystemData;
}

} // namespace Quorvex
