#pragma once

/// Packets that frame and pace a trace.
///
///     TraceEnabled    Version:4 | FrameLen:8 | FrameConfig:4
///     TraceDisabled   (empty)
///     EndOfTrace      (empty)
///     Fill            0 to 255 bytes of padding
///     Sync            core context
///     Timestamp       Timestamp:8 | HWCtx:4, optional | Frequency:8, optional

#include "quorvex/format/FrameConfig.h"
#include "quorvex/packets/PacketProtocol.h"

namespace Quorvex {

#include "quorvex/packets/KindMacros.def"

QUORVEX_PAYLOAD(CTraceEnabledPayload)
QUORVEX_PAYLOAD(CTimestampPayload)
QUORVEX_PAYLOAD(CFillPayload)

template <> struct FieldCodec<SFrameConfig> {
    static constexpr unsigned kFixed = SFrameConfig::Len();
    static unsigned size(const SFrameConfig&) { return SFrameConfig::Len(); }
    static int decode(SFrameConfig& value, const char* from, unsigned size) {
        if (size < SFrameConfig::Len())
            return -1;
        value = loadLittleEndian<SFrameConfig>(from);
        return SFrameConfig::Len();
    }
    static void encode(const SFrameConfig& value, char* to) { storeLittleEndian(to, value); }
};

/// Format version, length of the frame in bytes (all ones: unknown) and its configuration.
class QUORVEX_API CTraceEnabledPayload : public PayloadOperations<CTraceEnabledPayload> {
    QUORVEX_FIELD(std::uint32_t, Version, 0)
    QUORVEX_FIELD(std::uint64_t, FrameLen, kUnknown64)

public:
    static constexpr bool kTakesRest = true;

    CTraceEnabledPayload() = default;
    CTraceEnabledPayload(std::uint64_t frameLen, const SFrameConfig& config)
        : m_FrameLen(frameLen), m_FrameConfig(config) {}
    CTraceEnabledPayload(std::uint64_t frameLen, TraceExpansion expansion, bool exceptionFrames)
        : CTraceEnabledPayload(frameLen, SFrameConfig(expansion)) {
        m_FrameConfig.setExceptionFrames(exceptionFrames);
    }

    const SFrameConfig& FrameConfig() const { return m_FrameConfig; }
    void FrameConfig(const SFrameConfig& config) { m_FrameConfig = config; }
    TraceExpansion Expansion() const { return m_FrameConfig.getExpansion(); }
    void Expansion(TraceExpansion expansion) { m_FrameConfig.setExpansion(expansion); }
    bool ExceptionFrames() const { return m_FrameConfig.getExceptionFrames(); }
    void ExceptionFrames(bool on) { m_FrameConfig.setExceptionFrames(on); }

    static constexpr bool kLengthAsRead = true; ///< also when it is written
    static constexpr std::uint8_t Len() { return 16; }
    template <class Self, class Visitor> static constexpr void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Number, "Version", self.m_Version);
        visit(FieldMeaning::Length, "FrameLen", self.m_FrameLen);
        visit(FieldMeaning::Number, "FrameConfig", self.m_FrameConfig);
    }
    /// Also takes the shorter payloads that lack the last fields: 0, 4, 12 or 16 bytes.
    bool decode(const char* from, unsigned size);

private:
    SFrameConfig m_FrameConfig;
};

/// A time in ticks of a clock, with the core it belongs to and the ticks of that clock in one second where known. The
/// payload holds the fields that are valid; setting a field makes it so.
class QUORVEX_API CTimestampPayload : public PayloadOperations<CTimestampPayload> {
public:
    /// Which fields are valid, as bits.
    enum FieldsValid : unsigned { None = 0, TimestampValid = 1, HWCtxValid = 2, FrequencyValid = 4 };
    /// Enumerators, because not every compiler exports constants from a shared library.
    enum Lengths : std::uint8_t { Len_TS = 8, Len_TS_HWCtx = 12, Len_TS_Freq = 16, Len_TS_HWCtx_Freq = 20 };

    CTimestampPayload() = default;
    explicit CTimestampPayload(std::uint64_t timestamp) : m_Timestamp(timestamp) {}
    CTimestampPayload(std::uint64_t timestamp, std::uint32_t hwCtx)
        : m_Timestamp(timestamp), m_HWCtx(hwCtx), m_valid(TimestampValid | HWCtxValid) {}
    CTimestampPayload(std::uint64_t timestamp, std::uint64_t frequency)
        : m_Timestamp(timestamp), m_Frequency(frequency), m_valid(TimestampValid | FrequencyValid) {}
    /// 64 bits may come as another type than std::uint64_t, and must not be taken for a core.
    template <std::same_as<unsigned long long> Frequency>
    CTimestampPayload(std::uint64_t timestamp, Frequency frequency) requires(!std::same_as<Frequency, std::uint64_t>)
        : CTimestampPayload(timestamp, std::uint64_t{frequency}) {}
    CTimestampPayload(std::uint64_t timestamp, std::uint32_t hwCtx, std::uint64_t frequency)
        : m_Timestamp(timestamp),
          m_Frequency(frequency),
          m_HWCtx(hwCtx),
          m_valid(TimestampValid | HWCtxValid | FrequencyValid) {}

    std::uint64_t Timestamp() const { return m_Timestamp; }
    std::uint32_t HWCtx() const { return m_HWCtx; }
    std::uint64_t Frequency() const { return m_Frequency; }
    bool is_Timestamp_valid() const { return (m_valid & TimestampValid) != 0; }
    bool is_HWCtx_valid() const { return (m_valid & HWCtxValid) != 0; }
    bool is_Frequency_valid() const { return (m_valid & FrequencyValid) != 0; }

    static constexpr std::uint8_t Len() { return Len_TS; }
    /// The fields that a payload of that many bytes holds; None when there is no such payload.
    static FieldsValid Len2FieldsValid(unsigned length);
    /// Bytes of the valid fields.
    std::uint8_t GetPayloadLength() const { return static_cast<std::uint8_t>(partSize(*this)); }

    bool shape(unsigned size) {
        m_valid = Len2FieldsValid(size);
        return m_valid != None;
    }
    template <class Self, class Visitor> static constexpr void fields(Self& self, Visitor& visit) {
        if (self.is_Timestamp_valid())
            visit(FieldMeaning::Tick, "Timestamp", self.m_Timestamp);
        if (self.is_HWCtx_valid())
            visit(FieldMeaning::Context, "HWCtx", self.m_HWCtx);
        if (self.is_Frequency_valid())
            visit(FieldMeaning::Number, "Frequency", self.m_Frequency);
    }

protected:
    void Timestamp(std::uint64_t value) { set(m_Timestamp, value, TimestampValid); }
    void HWCtx(std::uint32_t value) { set(m_HWCtx, value, HWCtxValid); }
    void Frequency(std::uint64_t value) { set(m_Frequency, value, FrequencyValid); }

private:
    template <class T> void set(T& field, T value, FieldsValid bit) {
        field = value;
        m_valid |= bit;
        SetPacketHeaderLength();
    }

    std::uint64_t m_Timestamp = kUnknown64;
    std::uint64_t m_Frequency = 0;
    std::uint32_t m_HWCtx = 0;
    unsigned m_valid = TimestampValid;

    QUORVEX_RESIZABLE
};

/// Padding: how many bytes, each 0x80 when written and anything when read.
struct FillBytes {
    std::uint8_t count = 0;
};

template <> struct FieldCodec<FillBytes> {
    static constexpr unsigned kFixed = 0;
    static unsigned size(const FillBytes& value) { return value.count; }
    static int decode(FillBytes& value, const char*, unsigned size) {
        value.count = static_cast<std::uint8_t>(size);
        return static_cast<int>(size);
    }
    static void encode(const FillBytes& value, char* to) { std::memset(to, 0x80, value.count); }
};

class QUORVEX_API CFillPayload : public PayloadOperations<CFillPayload> {
public:
    static constexpr bool kTakesRest = true;

    CFillPayload() = default;
    explicit CFillPayload(std::uint8_t count) : m_fill{count} {}

    static constexpr std::uint8_t Len() { return 0; }
    template <class Self, class Visitor> static constexpr void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Bytes, "FillBytes", self.m_fill);
    }

protected:
    FillBytes m_fill; ///< how many bytes are filled

    QUORVEX_RESIZABLE
};

// Defined with the texts of their failures, and compiled, in TraceControlPackets.cpp.
extern QUORVEX_TEMPLATE_API const ReadRules kTraceEnabledRules, kNoRules, kTimestampRules, kFillRules, kSyncRules;

QUORVEX_EXTERN_TEMPLATE(PacketOf<kTraceEnabledRules, PlainPacket, CTraceEnabledPayload>)
/// A payload shorter than 16 bytes is read, and the header keeps its length; written is always the full payload, behind
/// the header as it is. A reader of what a short packet wrote loses step: put a fresh packet with its values into a
/// trace. Length() is the header's, StreamSize() the bytes that are written.
class QUORVEX_API CTraceEnabled : public PacketOf<kTraceEnabledRules, PlainPacket, CTraceEnabledPayload> {
    QUORVEX_KIND(TraceEnabled, PacketOf)

public:
    CTraceEnabled(std::uint64_t frameLen, TraceExpansion expansion, bool exceptionFrames);
    CTraceEnabled(std::uint64_t frameLen, const SFrameConfig& config);

    unsigned Length() const override { return GetLength(); }
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kNoRules, PlainPacket>)
/// The Read-In constructors neither check nor skip a length in their header.
class QUORVEX_API CTraceDisabled : public PacketOf<kNoRules, PlainPacket> {
    QUORVEX_KIND(TraceDisabled, PacketOf)
};

/// As CTraceDisabled.
class QUORVEX_API CEndOfTrace : public PacketOf<kNoRules, PlainPacket> {
    QUORVEX_KIND(EndOfTrace, PacketOf)
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kFillRules, PlainPacket, CFillPayload>)
class QUORVEX_API CFill : public PacketOf<kFillRules, PlainPacket, CFillPayload> {
    QUORVEX_KIND(Fill, PacketOf)

public:
    CFill(std::uint8_t count);

    void SetLength(std::uint8_t count) {
        m_fill.count = count;
        SetPacketHeaderLength();
    }
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kSyncRules, CorePacket>)
class QUORVEX_API CSync : public PacketOf<kSyncRules, CorePacket> {
    QUORVEX_KIND(Sync, PacketOf)

public:
    CSync(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip);
    CSync(const CCoreContext& context);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kTimestampRules, PlainPacket, CTimestampPayload>)
class QUORVEX_API CTimestamp : public PacketOf<kTimestampRules, PlainPacket, CTimestampPayload> {
    QUORVEX_KIND(Timestamp, PacketOf)

public:
    CTimestamp(std::uint64_t timestamp);
    CTimestamp(std::uint64_t timestamp, std::uint32_t hwCtx);
    CTimestamp(std::uint64_t timestamp, std::uint64_t frequency);
    CTimestamp(std::uint64_t timestamp, std::uint32_t hwCtx, std::uint64_t frequency);
    template <std::same_as<unsigned long long> Frequency>
    CTimestamp(std::uint64_t timestamp, Frequency frequency) requires(!std::same_as<Frequency, std::uint64_t>)
        : CTimestamp(timestamp, std::uint64_t{frequency}) {}

    using CTimestampPayload::Frequency;
    using CTimestampPayload::HWCtx;
    using CTimestampPayload::Timestamp;
};

#include "quorvex/packets/KindMacros.def"

} // namespace Quorvex
