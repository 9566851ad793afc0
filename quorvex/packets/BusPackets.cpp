#include "quorvex/packets/BusPackets.h"

#include "quorvex/packets/PacketImplementation.h"

namespace Quorvex {

bool CBusDataSignals::SetSignal(BusSignals access) {
    if (access > kAccess)
        return false;
    m_raw = static_cast<std::uint8_t>((m_raw & ~kAccess) | access);
    return true;
}

bool CBusDataSignals::ClearSignal(BusSignals access) {
    if (access > kAccess)
        return false;
    m_raw = static_cast<std::uint8_t>(m_raw & ~kAccess);
    return true;
}

#define QUORVEX_CALLED(Class, What) Class ": Read-In Constructor called with invalid " What
#define QUORVEX_COULD_NOT(Class, What) Class ": Read-In Constructor could not read " What

#define QUORVEX_SYNC_RULES(Class)                                                                                      \
    {                                                                                                                  \
        .header = QUORVEX_CALLED(Class, "header data"),                                                                \
        .context = QUORVEX_COULD_NOT(Class, "absolute context from stream")                                            \
    }
#define QUORVEX_BUS_RULES(Class)                                                                                       \
    {                                                                                                                  \
        .header = QUORVEX_CALLED(Class, "header data"),                                                                \
        .size = Class ": Read-In Constructor invalid buffer size supplied",                                            \
        .context = QUORVEX_COULD_NOT(Class, "context from stream"),                                                    \
        .payload = QUORVEX_COULD_NOT(Class, "data from stream")                                                        \
    }
#define QUORVEX_REL_BUS_RULES(Class)                                                                                   \
    {                                                                                                                  \
        .header = QUORVEX_CALLED(Class, "header data"),                                                                \
        .size = Class ": Read-In Constructor invalid buffer space supplied.",                                          \
        .context = QUORVEX_COULD_NOT(Class, "absolute context from stream"),                                           \
        .payload = QUORVEX_COULD_NOT(Class, "payload from stream")                                                     \
    }
#define QUORVEX_SIGNAL_RULES(Class, Size, ...)                                                                         \
    {                                                                                                                  \
        .header = QUORVEX_CALLED(Class, "header data"), .size = Size,                                                  \
        .context = QUORVEX_COULD_NOT(Class, "bus context from stream"),                                                \
        .payload = QUORVEX_COULD_NOT(Class, "payload from stream"),                                                    \
        .text = QUORVEX_COULD_NOT(Class, "payload from stream") __VA_OPT__(, ) __VA_ARGS__                             \
    }

constexpr ReadRules kBusSyncRules = QUORVEX_SYNC_RULES("CBusSync");
constexpr ReadRules kSystemSyncRules = QUORVEX_SYNC_RULES("CSystemSync");
constexpr ReadRules kBusDataRules = QUORVEX_BUS_RULES("CBusData");
constexpr ReadRules kBusAddrDataRules = QUORVEX_BUS_RULES("CBusAddrData");
constexpr ReadRules kRelBusDataRules = QUORVEX_REL_BUS_RULES("CRelBusData");
constexpr ReadRules kRelBusAddrDataRules = QUORVEX_REL_BUS_RULES("CRelBusAddrData");

constexpr ReadRules kSignalRules{.header = QUORVEX_CALLED("CSignal", "header data"),
                                 .size = QUORVEX_CALLED("CSignal", "buffer size"),
                                 .context = {QUORVEX_COULD_NOT("CSignal", "absolute context from stream"),
                                             QUORVEX_COULD_NOT("CSignal", "bus context from stream")},
                                 .payload = QUORVEX_COULD_NOT("CSignal", "payload from stream")};
/// The plain read asks for as large a buffer as the absolute kind, though its packets can be much smaller: callers rely
/// on the refusal.
constexpr ReadRules kRelSignalRules =
    QUORVEX_SIGNAL_RULES("CRelSignal", QUORVEX_CALLED("CRelSignal", "buffer size."), .least = 16);
constexpr ReadRules kSignalDefineRules = QUORVEX_SIGNAL_RULES("CSignalDefine", nullptr);
constexpr ReadRules kRelSignalDefineRules = QUORVEX_SIGNAL_RULES("CRelSignalDefine", nullptr);
constexpr ReadRules kSignalUndefineRules =
    QUORVEX_SIGNAL_RULES("CSignalUndefine", QUORVEX_CALLED("CSignalUndefine", "buffer size"));
constexpr ReadRules kRelSignalUndefineRules =
    QUORVEX_SIGNAL_RULES("CRelSignalUndefine", QUORVEX_CALLED("CRelSignalUndefine", "buffer size"));

constexpr ReadRules kSystemDataRules{.header = QUORVEX_CALLED("CSystemData", "header data"),
                                     .size = QUORVEX_CALLED("CSystemData", "buffer size."),
                                     .context = QUORVEX_COULD_NOT("CSystemData", "absolute context from stream"),
                                     .payload = QUORVEX_COULD_NOT("CSystemData", "payload from stream.")};
constexpr ReadRules kRelSystemDataRules{.header = QUORVEX_CALLED("CRelSystemData", "header data"),
                                        .size = QUORVEX_CALLED("CRelSystemData", "buffer size."),
                                        .context = QUORVEX_COULD_NOT("CRelSystemData", "absolute context from stream"),
                                        .payload = QUORVEX_COULD_NOT("CRelSystemData", "payload from stream")};

#undef QUORVEX_CALLED
#undef QUORVEX_COULD_NOT
#undef QUORVEX_SYNC_RULES
#undef QUORVEX_BUS_RULES
#undef QUORVEX_REL_BUS_RULES
#undef QUORVEX_SIGNAL_RULES

CBusSync::CBusSync(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t master)
    : PacketOf({tick, hwCtx, master}, kCode) {}
CBusSync::CBusSync(const CBusContext& context) : PacketOf(context.values(), kCode) {}

CSystemSync::CSystemSync(std::uint64_t tick, std::uint32_t channel, std::uint32_t master)
    : PacketOf({tick, channel, master}, kCode) {}
CSystemSync::CSystemSync(const CSystemContext& context) : PacketOf(context.values(), kCode) {}

CBusData::CBusData(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t master, const CBusDataSignals& signals,
                   const CData& data)
    : PacketOf({tick, hwCtx, master}, kCode, signals, data) {}
CBusData::CBusData(const CBusContext& context, const CBusDataSignals& signals, const CData& data)
    : PacketOf(context.values(), kCode, signals, data) {}

CBusAddrData::CBusAddrData(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t master,
                           const CBusDataSignals& signals, std::uint64_t address, const CData& data)
    : PacketOf({tick, hwCtx, master}, kCode, signals, address, data) {}
CBusAddrData::CBusAddrData(const CBusContext& context, const CBusDataSignals& signals, std::uint64_t address,
                           const CData& data)
    : PacketOf(context.values(), kCode, signals, address, data) {}

CSignalDefine::CSignalDefine(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t master, std::uint32_t id,
                             const CSignalMask& mask, const CCharStringSequence& name)
    : PacketOf({tick, hwCtx, master}, kCode, id, mask, name) {}
CSignalDefine::CSignalDefine(const CBusContext& context, std::uint32_t id, const CSignalMask& mask,
                             const CCharStringSequence& name)
    : PacketOf(context.values(), kCode, id, mask, name) {}

CSignalUndefine::CSignalUndefine(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t master, std::uint32_t id)
    : PacketOf({tick, hwCtx, master}, kCode, id) {}
CSignalUndefine::CSignalUndefine(const CBusContext& context, std::uint32_t id)
    : PacketOf(context.values(), kCode, id) {}

CSignal::CSignal(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t master, const CSignalMask& value,
                 const CSignalMask& mask)
    : PacketOf({tick, hwCtx, master}, kCode, value, mask) {}
CSignal::CSignal(const CBusContext& context, const CSignalMask& value, const CSignalMask& mask)
    : PacketOf(context.values(), kCode, value, mask) {}

CSystemData::CSystemData(std::uint64_t tick, std::uint32_t channel, std::uint32_t master, const CData& data)
    : PacketOf({tick, channel, master}, kCode, data) {}
CSystemData::CSystemData(const CSystemContext& context, const CData& data) : PacketOf(context.values(), kCode, data) {}

CRelBusData::CRelBusData(std::uint8_t relTick, const CBusDataSignals& signals, const CData& data)
    : PacketOf({relTick}, kCode, signals, data) {}
CRelBusData::CRelBusData(const CRelBusContext& context, const CBusDataSignals& signals, const CData& data)
    : PacketOf(context.values(), kCode, signals, data) {}

CRelBusAddrData::CRelBusAddrData(std::uint8_t relTick, const CBusDataSignals& signals, std::uint64_t address,
                                 const CData& data)
    : PacketOf({relTick}, kCode, signals, address, data) {}
CRelBusAddrData::CRelBusAddrData(const CRelBusContext& context, const CBusDataSignals& signals, std::uint64_t address,
                                 const CData& data)
    : PacketOf(context.values(), kCode, signals, address, data) {}

CRelSignalDefine::CRelSignalDefine(std::uint8_t relTick, std::uint32_t id, const CSignalMask& mask,
                                   const CCharStringSequence& name)
    : PacketOf({relTick}, kCode, id, mask, name) {}
CRelSignalDefine::CRelSignalDefine(const CRelBusContext& context, std::uint32_t id, const CSignalMask& mask,
                                   const CCharStringSequence& name)
    : PacketOf(context.values(), kCode, id, mask, name) {}

CRelSignalUndefine::CRelSignalUndefine(std::uint8_t relTick, std::uint32_t id) : PacketOf({relTick}, kCode, id) {}
CRelSignalUndefine::CRelSignalUndefine(const CRelBusContext& context, std::uint32_t id)
    : PacketOf(context.values(), kCode, id) {}

CRelSignal::CRelSignal(std::uint8_t relTick, const CSignalMask& value, const CSignalMask& mask)
    : PacketOf({relTick}, kCode, value, mask) {}
CRelSignal::CRelSignal(const CRelBusContext& context, const CSignalMask& value, const CSignalMask& mask)
    : PacketOf(context.values(), kCode, value, mask) {}

CRelSystemData::CRelSystemData(std::uint8_t relTick, const CData& data) : PacketOf({relTick}, kCode, data) {}
CRelSystemData::CRelSystemData(const CRelSystemContext& context, const CData& data)
    : PacketOf(context.values(), kCode, data) {}

template class PayloadOperations<CBusDataPayload>;
template class PayloadOperations<CBusAddrDataPayload>;
template class PayloadOperations<CSystemDataPayload>;
template class PayloadOperations<CSignalPayload>;
template class PayloadOperations<CSignalDefinePayload>;
template class PayloadOperations<CSignalUndefinePayload>;

template class PacketOf<kBusSyncRules, BusPacket>;
template class PacketOf<kSystemSyncRules, SystemPacket>;
template class PacketOf<kBusDataRules, BusPacket, CBusDataPayload>;
template class PacketOf<kBusAddrDataRules, BusPacket, CBusAddrDataPayload>;
template class PacketOf<kSignalDefineRules, BusPacket, CSignalDefinePayload>;
template class PacketOf<kSignalUndefineRules, BusPacket, CSignalUndefinePayload>;
template class PacketOf<kSignalRules, BusPacket, CSignalPayload>;
template class PacketOf<kSystemDataRules, SystemPacket, CSystemDataPayload>;
template class PacketOf<kRelBusDataRules, RelBusPacket, CBusDataPayload>;
template class PacketOf<kRelBusAddrDataRules, RelBusPacket, CBusAddrDataPayload>;
template class PacketOf<kRelSignalDefineRules, RelBusPacket, CSignalDefinePayload>;
template class PacketOf<kRelSignalUndefineRules, RelBusPacket, CSignalUndefinePayload>;
template class PacketOf<kRelSignalRules, RelBusPacket, CSignalPayload>;
template class PacketOf<kRelSystemDataRules, RelSystemPacket, CSystemDataPayload>;

QUORVEX_COMPILE_PAIR(BusData)
QUORVEX_COMPILE_PAIR(BusAddrData)
QUORVEX_COMPILE_PAIR(SignalDefine)
QUORVEX_COMPILE_PAIR(SignalUndefine)
QUORVEX_COMPILE_PAIR(Signal)
QUORVEX_COMPILE_PAIR(SystemData)
QUORVEX_COMPILE_KIND(BusSync)
QUORVEX_COMPILE_KIND(SystemSync)

} // namespace Quorvex
