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
#include "quorvex/packets/CommonPayloads.h"
#include "quorvex/packets/SignalMask.h"

namespace Quorvex {

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

    std::uint8_t GetRawFlags() const { return m_raw; }
    bool AccUnknown() const { return access() == BusAccUnknown; }
    bool AccRead() const { return (m_raw & BusAccRead) != 0; }
    bool AccWrite() const { return (m_raw & BusAccWrite) != 0; }
    /// Each is false for a value above 3.
    bool GetSignal(BusSignals access) const { return access <= kAccess && this->access() == access; }
    bool SetSignal(BusSignals access);
    /// Clears both bits, whichever access is named.
    bool ClearSignal(BusSignals access);
    bool operator==(const CBusDataSignals&) const = default;

private:
    static constexpr unsigned kAccess = 3;
    unsigned access() const { return m_raw & kAccess; }

    std::uint8_t m_raw = 0;
};

template <> struct FieldCodec<CBusDataSignals> {
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
    using Forms = FormList<Form<const CBusDataSignals&, const CData&>>;
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
    template <class Self, class Visitor> static void fields(Self& self, Visitor& visit) {
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
    using Forms = FormList<Form<const CBusDataSignals&, std::uint64_t, const CData&>>;
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
    template <class Self, class Visitor> static void fields(Self& self, Visitor& visit) {
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
    using Forms = FormList<Form<const CData&>>;
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
    template <class Self, class Visitor> static void fields(Self& self, Visitor& visit) {
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
    using Forms = FormList<Form<const CSignalMask&, const CSignalMask&>>;

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
    template <class Self, class Visitor> static void fields(Self& self, Visitor& visit) {
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
    using Forms = FormList<Form<std::uint32_t, const CSignalMask&, const CCharStringSequence&>>;

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
    template <class Self, class Visitor> static void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Id, "SignalId", self.m_SignalId);
        visit(FieldMeaning::Bytes, "SignalMask", self.m_mask);
    }

private:
    CSignalMask m_mask;

    QUORVEX_RESIZABLE
};

QUORVEX_ID_PAYLOAD(CSignalUndefinePayload, SignalId, QUORVEX_PUBLIC_OPERATIONS)

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

inline constexpr ReadRules kBusSyncRules = QUORVEX_SYNC_RULES("CBusSync");
inline constexpr ReadRules kSystemSyncRules = QUORVEX_SYNC_RULES("CSystemSync");
inline constexpr ReadRules kBusDataRules = QUORVEX_BUS_RULES("CBusData");
inline constexpr ReadRules kBusAddrDataRules = QUORVEX_BUS_RULES("CBusAddrData");
inline constexpr ReadRules kRelBusDataRules = QUORVEX_REL_BUS_RULES("CRelBusData");
inline constexpr ReadRules kRelBusAddrDataRules = QUORVEX_REL_BUS_RULES("CRelBusAddrData");

inline constexpr ReadRules kSignalRules{.header = QUORVEX_CALLED("CSignal", "header data"),
                                        .size = QUORVEX_CALLED("CSignal", "buffer size"),
                                        .context = {QUORVEX_COULD_NOT("CSignal", "absolute context from stream"),
                                                    QUORVEX_COULD_NOT("CSignal", "bus context from stream")},
                                        .payload = QUORVEX_COULD_NOT("CSignal", "payload from stream")};
/// The plain read asks for as large a buffer as the absolute kind, though its packets can be much smaller: callers rely
/// on the refusal.
inline constexpr ReadRules kRelSignalRules =
    QUORVEX_SIGNAL_RULES("CRelSignal", QUORVEX_CALLED("CRelSignal", "buffer size."), .least = 16);
inline constexpr ReadRules kSignalDefineRules = QUORVEX_SIGNAL_RULES("CSignalDefine", nullptr);
inline constexpr ReadRules kRelSignalDefineRules = QUORVEX_SIGNAL_RULES("CRelSignalDefine", nullptr);
inline constexpr ReadRules kSignalUndefineRules =
    QUORVEX_SIGNAL_RULES("CSignalUndefine", QUORVEX_CALLED("CSignalUndefine", "buffer size"));
inline constexpr ReadRules kRelSignalUndefineRules =
    QUORVEX_SIGNAL_RULES("CRelSignalUndefine", QUORVEX_CALLED("CRelSignalUndefine", "buffer size"));

inline constexpr ReadRules kSystemDataRules{.header = QUORVEX_CALLED("CSystemData", "header data"),
                                            .size = QUORVEX_CALLED("CSystemData", "buffer size."),
                                            .context = QUORVEX_COULD_NOT("CSystemData", "absolute context from stream"),
                                            .payload = QUORVEX_COULD_NOT("CSystemData", "payload from stream.")};
inline constexpr ReadRules kRelSystemDataRules{.header = QUORVEX_CALLED("CRelSystemData", "header data"),
                                               .size = QUORVEX_CALLED("CRelSystemData", "buffer size."),
                                               .context =
                                                   QUORVEX_COULD_NOT("CRelSystemData", "absolute context from stream"),
                                               .payload = QUORVEX_COULD_NOT("CRelSystemData", "payload from stream")};

#undef QUORVEX_CALLED
#undef QUORVEX_COULD_NOT
#undef QUORVEX_SYNC_RULES
#undef QUORVEX_BUS_RULES
#undef QUORVEX_REL_BUS_RULES
#undef QUORVEX_SIGNAL_RULES

QUORVEX_KIND(BusSync, PacketOf<kBusSyncRules, BusPacket>)
QUORVEX_KIND(SystemSync, PacketOf<kSystemSyncRules, SystemPacket>)

QUORVEX_KIND(BusData, PacketOf<kBusDataRules, BusPacket, CBusDataPayload>)
QUORVEX_KIND(BusAddrData, PacketOf<kBusAddrDataRules, BusPacket, CBusAddrDataPayload>)
QUORVEX_KIND(SignalDefine, PacketOf<kSignalDefineRules, BusPacket, CSignalDefinePayload>)
QUORVEX_KIND(SignalUndefine, PacketOf<kSignalUndefineRules, BusPacket, CSignalUndefinePayload>)
QUORVEX_KIND(Signal, PacketOf<kSignalRules, BusPacket, CSignalPayload>)
QUORVEX_KIND(SystemData, PacketOf<kSystemDataRules, SystemPacket, CSystemDataPayload>)

QUORVEX_KIND(RelBusData, PacketOf<kRelBusDataRules, RelBusPacket, CBusDataPayload>)
QUORVEX_KIND(RelBusAddrData, PacketOf<kRelBusAddrDataRules, RelBusPacket, CBusAddrDataPayload>)
QUORVEX_KIND(RelSignalDefine, PacketOf<kRelSignalDefineRules, RelBusPacket, CSignalDefinePayload>)
QUORVEX_KIND(RelSignalUndefine, PacketOf<kRelSignalUndefineRules, RelBusPacket, CSignalUndefinePayload>)
QUORVEX_KIND(RelSignal, PacketOf<kRelSignalRules, RelBusPacket, CSignalPayload>)
QUORVEX_KIND(RelSystemData, PacketOf<kRelSystemDataRules, RelSystemPacket, CSystemDataPayload>)

} // namespace Quorvex
