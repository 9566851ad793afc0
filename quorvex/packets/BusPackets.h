#pragma once

/// What a bus observer and a system trace channel saw.
///
///     BusSync, SystemSync   context
///     BusData               context | Signals:1 | 0 to 64 bytes of data
///     BusAddrData           context | Signals:1 | Addr:8 | 0 to 64 bytes of data
///     SignalDefine          context | SignalId:4 | mask of its lines, up to 119 bytes, then the name
///     SignalUndefine        context | SignalId:4
///     Signal                context | values | validity mask, both of the same number of bytes, up to 119
///     SystemData            context | 0 to 64 bytes of data
///
/// The context is the bus context, of SystemSync and SystemData the system context; in the relative kinds it is the
/// relative one. How wide the variable parts are follows from the header's length.

#include "quorvex/format/Data.h"
#include "quorvex/packets/PacketProtocol.h"
#include "quorvex/packets/SignalMask.h"

namespace Quorvex {

#include "quorvex/packets/KindMacros.def"

QUORVEX_PAYLOAD(CBusDataPayload)
QUORVEX_PAYLOAD(CBusAddrDataPayload)
QUORVEX_PAYLOAD(CSystemDataPayload)
QUORVEX_PAYLOAD(CSignalPayload)
QUORVEX_PAYLOAD(CSignalDefinePayload)

/// What a bus transfer does.
enum BusSignals : unsigned { BusAccUnknown = 0, BusAccRead = 1, BusAccWrite = 2, BusAccReadWrite = 3 };

/// One byte that qualifies a bus transfer. Bits 0 and 1 are the access; the others are kept as they come.
class QUORVEX_API CBusDataSignals {
public:
    CBusDataSignals() = default;
    explicit CBusDataSignals(std::uint8_t raw) : m_raw(raw) {}
    /// A value above 3 gives 0.
    CBusDataSignals(BusSignals access)
        : m_raw(access > kAccess ? std::uint8_t{0} : static_cast<std::uint8_t>(access)) {}

    static constexpr std::uint8_t Len() { return 1; }

    std::uint8_t GetRawFlags() const { return m_raw; } ///< the byte on the wire
    bool AccUnknown() const { return access() == BusAccUnknown; }
    bool AccRead() const { return (m_raw & BusAccRead) != 0; }
    bool AccWrite() const { return (m_raw & BusAccWrite) != 0; }
    /// Each is false for a value above 3.
    bool GetSignal(BusSignals access) const { return access <= kAccess && this->access() == access; }
    bool SetSignal(BusSignals access); ///< false for a kind of access that there is not
    /// Clears both bits, whichever access is named.
    bool ClearSignal(BusSignals access);
    bool operator==(const CBusDataSignals&) const = default;

private:
    static constexpr unsigned kAccess = 3;
    unsigned access() const { return m_raw & kAccess; }

    std::uint8_t m_raw = 0;
};

template <> struct FieldCodec<CBusDataSignals> {
    static constexpr unsigned kFixed = CBusDataSignals::Len();
    static unsigned size(const CBusDataSignals&) { return CBusDataSignals::Len(); }
    static int decode(CBusDataSignals& value, const char* from, unsigned size) {
        if (size < CBusDataSignals::Len())
            return -1;
        value = CBusDataSignals(static_cast<std::uint8_t>(*from));
        return CBusDataSignals::Len();
    }
    static void encode(const CBusDataSignals& value, char* to) { *to = static_cast<char>(value.GetRawFlags()); }
};

class QUORVEX_API CBusDataPayload : public PayloadOperations<CBusDataPayload> {
    QUORVEX_PUBLIC_OPERATIONS

public:
    static constexpr bool kTakesRest = true;

    CBusDataPayload() = default;
    CBusDataPayload(const CBusDataSignals& signals, const CData& data) : m_signals(signals), m_data(data) {}

    const CBusDataSignals& Signals() const { return m_signals; }
    void Signals(const CBusDataSignals& signals) { m_signals = signals; }
    const CData& Data() const { return m_data; }
    CData& Data() { return m_data; }
    void Data(const CData& data) {
        m_data = data;
        SetPacketHeaderLength();
    }

    static constexpr std::uint8_t Len() { return 1; }
    template <class Self, class Visitor> static constexpr void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Number, "Signals", self.m_signals);
        visit(FieldMeaning::Bytes, "Data", self.m_data);
    }

private:
    CBusDataSignals m_signals;
    CData m_data;

    QUORVEX_RESIZABLE
};

class QUORVEX_API CBusAddrDataPayload : public PayloadOperations<CBusAddrDataPayload> {
    QUORVEX_PUBLIC_OPERATIONS
    QUORVEX_FIELD(std::uint64_t, Addr, kUnknown64)

public:
    static constexpr bool kTakesRest = true;

    CBusAddrDataPayload() = default;
    CBusAddrDataPayload(const CBusDataSignals& signals, std::uint64_t address, const CData& data)
        : m_Addr(address), m_signals(signals), m_data(data) {}

    const CBusDataSignals& Signals() const { return m_signals; }
    void Signals(const CBusDataSignals& signals) { m_signals = signals; }
    const CData& Data() const { return m_data; }
    CData& Data() { return m_data; }
    void Data(const CData& data) {
        m_data = data;
        SetPacketHeaderLength();
    }

    static constexpr std::uint8_t Len() { return 9; }
    template <class Self, class Visitor> static constexpr void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Number, "Signals", self.m_signals);
        visit(FieldMeaning::Address, "Addr", self.m_Addr);
        visit(FieldMeaning::Bytes, "Data", self.m_data);
    }

private:
    CBusDataSignals m_signals;
    CData m_data;

    QUORVEX_RESIZABLE
};

class QUORVEX_API CSystemDataPayload : public PayloadOperations<CSystemDataPayload> {
    QUORVEX_PUBLIC_OPERATIONS

public:
    static constexpr bool kTakesRest = true;

    CSystemDataPayload() = default;
    explicit CSystemDataPayload(const CData& data) : m_data(data) {}

    const CData& Data() const { return m_data; }
    CData& Data() { return m_data; }
    void Data(const CData& data) {
        m_data = data;
        SetPacketHeaderLength();
    }

    static constexpr std::uint8_t Len() { return 0; }
    template <class Self, class Visitor> static constexpr void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Bytes, "Data", self.m_data);
    }

private:
    CData m_data;

    QUORVEX_RESIZABLE
};

/// Values of digital lines, and which of them are valid. A writer keeps both masks at the same number of bytes: a
/// reader splits the payload in the middle.
class QUORVEX_API CSignalPayload : public PayloadOperations<CSignalPayload> {
    QUORVEX_PUBLIC_OPERATIONS

public:
    CSignalPayload() = default;
    CSignalPayload(const CSignalMask& value, const CSignalMask& mask) : m_value(value), m_mask(mask) {}

    const CSignalMask& SignalValue() const { return m_value; }
    void SignalValue(const CSignalMask& value) {
        m_value = value;
        SetPacketHeaderLength();
    }
    const CSignalMask& SignalMask() const { return m_mask; }
    void SignalMask(const CSignalMask& mask) {
        m_mask = mask;
        SetPacketHeaderLength();
    }

    static constexpr std::uint8_t Len() { return 0; }
    bool shape(unsigned size) { return size % 2 == 0 && m_value.resize(size / 2 * 8) && m_mask.resize(size / 2 * 8); }
    template <class Self, class Visitor> static constexpr void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Bytes, "SignalValue", self.m_value);
        visit(FieldMeaning::Bytes, "SignalMask", self.m_mask);
    }

private:
    CSignalMask m_value;
    CSignalMask m_mask;

    QUORVEX_RESIZABLE
};

/// The lines that a signal consists of, which may be none, and its name. Into memory that has no room for the name, the
/// definition is written without it.
class QUORVEX_API CSignalDefinePayload : public PayloadOperations<CSignalDefinePayload> {
    QUORVEX_PUBLIC_OPERATIONS
    QUORVEX_FIELD(std::uint32_t, SignalId, 0)
    QUORVEX_DEFINITION(SignalDef)

public:
    CSignalDefinePayload() = default;
    CSignalDefinePayload(std::uint32_t id, const CSignalMask& mask, const CCharStringSequence& name)
        : m_SignalId(id), m_SignalDef(name), m_mask(mask) {}

    const CSignalMask& SignalMask() const { return m_mask; }
    void SignalMask(const CSignalMask& mask) {
        m_mask = mask;
        SetPacketHeaderLength();
    }

    static constexpr bool kTextIfRoom = true;
    static constexpr std::uint8_t Len() { return 4; }
    bool shape(unsigned size) { return size >= Len() && m_mask.resize((size - Len()) * 8); }
    template <class Self, class Visitor> static constexpr void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Id, "SignalId", self.m_SignalId);
        visit(FieldMeaning::Bytes, "SignalMask", self.m_mask);
    }

private:
    CSignalMask m_mask;

    QUORVEX_RESIZABLE
};

QUORVEX_ID_PAYLOAD(CSignalUndefinePayload, SignalId, QUORVEX_PUBLIC_OPERATIONS)

// Defined with the texts of their failures, and compiled, in BusPackets.cpp.
extern QUORVEX_TEMPLATE_API const ReadRules kBusSyncRules, kSystemSyncRules, kBusDataRules, kBusAddrDataRules,
    kRelBusDataRules, kRelBusAddrDataRules, kSignalRules, kRelSignalRules, kSignalDefineRules, kRelSignalDefineRules,
    kSignalUndefineRules, kRelSignalUndefineRules, kSystemDataRules, kRelSystemDataRules;

QUORVEX_EXTERN_TEMPLATE(PacketOf<kBusSyncRules, BusPacket>)
class QUORVEX_API CBusSync : public PacketOf<kBusSyncRules, BusPacket> {
    QUORVEX_KIND(BusSync, PacketOf)

public:
    CBusSync(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t master);
    CBusSync(const CBusContext& context);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kSystemSyncRules, SystemPacket>)
class QUORVEX_API CSystemSync : public PacketOf<kSystemSyncRules, SystemPacket> {
    QUORVEX_KIND(SystemSync, PacketOf)

public:
    CSystemSync(std::uint64_t tick, std::uint32_t channel, std::uint32_t master);
    CSystemSync(const CSystemContext& context);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kBusDataRules, BusPacket, CBusDataPayload>)
class QUORVEX_API CBusData : public PacketOf<kBusDataRules, BusPacket, CBusDataPayload> {
    QUORVEX_KIND(BusData, PacketOf)

public:
    CBusData(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t master, const CBusDataSignals& signals,
             const CData& data);
    CBusData(const CBusContext& context, const CBusDataSignals& signals, const CData& data);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kBusAddrDataRules, BusPacket, CBusAddrDataPayload>)
class QUORVEX_API CBusAddrData : public PacketOf<kBusAddrDataRules, BusPacket, CBusAddrDataPayload> {
    QUORVEX_KIND(BusAddrData, PacketOf)

public:
    CBusAddrData(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t master, const CBusDataSignals& signals,
                 std::uint64_t address, const CData& data);
    CBusAddrData(const CBusContext& context, const CBusDataSignals& signals, std::uint64_t address, const CData& data);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kSignalDefineRules, BusPacket, CSignalDefinePayload>)
class QUORVEX_API CSignalDefine : public PacketOf<kSignalDefineRules, BusPacket, CSignalDefinePayload> {
    QUORVEX_KIND(SignalDefine, PacketOf)

public:
    CSignalDefine(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t master, std::uint32_t id,
                  const CSignalMask& mask, const CCharStringSequence& name);
    CSignalDefine(const CBusContext& context, std::uint32_t id, const CSignalMask& mask,
                  const CCharStringSequence& name);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kSignalUndefineRules, BusPacket, CSignalUndefinePayload>)
class QUORVEX_API CSignalUndefine : public PacketOf<kSignalUndefineRules, BusPacket, CSignalUndefinePayload> {
    QUORVEX_KIND(SignalUndefine, PacketOf)

public:
    CSignalUndefine(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t master, std::uint32_t id);
    CSignalUndefine(const CBusContext& context, std::uint32_t id);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kSignalRules, BusPacket, CSignalPayload>)
class QUORVEX_API CSignal : public PacketOf<kSignalRules, BusPacket, CSignalPayload> {
    QUORVEX_KIND(Signal, PacketOf)

public:
    CSignal(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t master, const CSignalMask& value,
            const CSignalMask& mask);
    CSignal(const CBusContext& context, const CSignalMask& value, const CSignalMask& mask);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kSystemDataRules, SystemPacket, CSystemDataPayload>)
class QUORVEX_API CSystemData : public PacketOf<kSystemDataRules, SystemPacket, CSystemDataPayload> {
    QUORVEX_KIND(SystemData, PacketOf)

public:
    CSystemData(std::uint64_t tick, std::uint32_t channel, std::uint32_t master, const CData& data);
    CSystemData(const CSystemContext& context, const CData& data);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kRelBusDataRules, RelBusPacket, CBusDataPayload>)
class QUORVEX_API CRelBusData : public PacketOf<kRelBusDataRules, RelBusPacket, CBusDataPayload> {
    QUORVEX_KIND(RelBusData, PacketOf)

public:
    CRelBusData(std::uint8_t relTick, const CBusDataSignals& signals, const CData& data);
    CRelBusData(const CRelBusContext& context, const CBusDataSignals& signals, const CData& data);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kRelBusAddrDataRules, RelBusPacket, CBusAddrDataPayload>)
class QUORVEX_API CRelBusAddrData : public PacketOf<kRelBusAddrDataRules, RelBusPacket, CBusAddrDataPayload> {
    QUORVEX_KIND(RelBusAddrData, PacketOf)

public:
    CRelBusAddrData(std::uint8_t relTick, const CBusDataSignals& signals, std::uint64_t address, const CData& data);
    CRelBusAddrData(const CRelBusContext& context, const CBusDataSignals& signals, std::uint64_t address,
                    const CData& data);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kRelSignalDefineRules, RelBusPacket, CSignalDefinePayload>)
class QUORVEX_API CRelSignalDefine : public PacketOf<kRelSignalDefineRules, RelBusPacket, CSignalDefinePayload> {
    QUORVEX_KIND(RelSignalDefine, PacketOf)

public:
    CRelSignalDefine(std::uint8_t relTick, std::uint32_t id, const CSignalMask& mask, const CCharStringSequence& name);
    CRelSignalDefine(const CRelBusContext& context, std::uint32_t id, const CSignalMask& mask,
                     const CCharStringSequence& name);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kRelSignalUndefineRules, RelBusPacket, CSignalUndefinePayload>)
class QUORVEX_API CRelSignalUndefine : public PacketOf<kRelSignalUndefineRules, RelBusPacket, CSignalUndefinePayload> {
    QUORVEX_KIND(RelSignalUndefine, PacketOf)

public:
    CRelSignalUndefine(std::uint8_t relTick, std::uint32_t id);
    CRelSignalUndefine(const CRelBusContext& context, std::uint32_t id);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kRelSignalRules, RelBusPacket, CSignalPayload>)
class QUORVEX_API CRelSignal : public PacketOf<kRelSignalRules, RelBusPacket, CSignalPayload> {
    QUORVEX_KIND(RelSignal, PacketOf)

public:
    CRelSignal(std::uint8_t relTick, const CSignalMask& value, const CSignalMask& mask);
    CRelSignal(const CRelBusContext& context, const CSignalMask& value, const CSignalMask& mask);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kRelSystemDataRules, RelSystemPacket, CSystemDataPayload>)
class QUORVEX_API CRelSystemData : public PacketOf<kRelSystemDataRules, RelSystemPacket, CSystemDataPayload> {
    QUORVEX_KIND(RelSystemData, PacketOf)

public:
    CRelSystemData(std::uint8_t relTick, const CData& data);
    CRelSystemData(const CRelSystemContext& context, const CData& data);
};

#include "quorvex/packets/KindMacros.def"

} // namespace Quorvex
