#pragma once

/// Reads and writes of target memory.
///
///     ReadData, WriteData   context | DataAddr:8 | 0 to 64 bytes of data
///
/// The context is the core context in the absolute kinds and the relative core context in the relative ones.

#include "quorvex/format/Data.h"
#include "quorvex/packets/PacketProtocol.h"

namespace Quorvex {

#include "quorvex/packets/KindMacros.def"

QUORVEX_PAYLOAD(CDataBasePayload, 8)

/// The address that is accessed, and the bytes that were read or written there.
class QUORVEX_API CDataBasePayload : public PayloadOperations<CDataBasePayload, 8> {
    QUORVEX_FIELD(std::uint64_t, AccAddr, kUnknown64)

public:
    static constexpr bool kTakesRest = true;

    CDataBasePayload() = default;
    explicit CDataBasePayload(std::uint64_t address, const CData& data = CData())
        : m_AccAddr(address), m_AccData(data) {}
    CDataBasePayload(const CDataBasePayload&) = default;
    CDataBasePayload& operator=(const CDataBasePayload&) = default;
    virtual ~CDataBasePayload();

    unsigned AccLen() const { return m_AccData.Length(); }
    const CData& AccData() const { return m_AccData; }
    CData& AccData() { return m_AccData; }
    void AccData(const CData& data) {
        m_AccData = data;
        SetPacketHeaderLength();
    }

    static constexpr std::uint8_t Len() { return 8; }
    template <class Self, class Visitor> static constexpr void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Address, "DataAddr", self.m_AccAddr);
        visit(FieldMeaning::Bytes, "Data", self.m_AccData);
    }
    static void onReadException(const char* what);
    static void onWriteException(const char* what);

private:
    CData m_AccData;

    QUORVEX_RESIZABLE
};

// Defined with the texts of their failures, and compiled, in DataPackets.cpp.
extern QUORVEX_TEMPLATE_API const ReadRules kDataBaseRules, kRelDataBaseRules;

QUORVEX_EXTERN_TEMPLATE(PacketOf<kDataBaseRules, CorePacket, CDataBasePayload>)
class QUORVEX_API CDataBase : public PacketOf<kDataBaseRules, CorePacket, CDataBasePayload> {
    QUORVEX_BASE(CDataBase)

public:
    CDataBase(tagTCode code, std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
              std::uint64_t address, const CData& data = CData());
    CDataBase(tagTCode code, const CCoreContext& context, std::uint64_t address, const CData& data = CData());
};

class QUORVEX_API CReadData : public CDataBase {
    QUORVEX_KIND(ReadData, CDataBase)

public:
    CReadData(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip, std::uint64_t address,
              const CData& data = CData());
    CReadData(const CCoreContext& context, std::uint64_t address, const CData& data = CData());
};

class QUORVEX_API CWriteData : public CDataBase {
    QUORVEX_KIND(WriteData, CDataBase)

public:
    CWriteData(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip, std::uint64_t address,
               const CData& data = CData());
    CWriteData(const CCoreContext& context, std::uint64_t address, const CData& data = CData());
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kRelDataBaseRules, RelCorePacket, CDataBasePayload>)
class QUORVEX_API CRelDataBase : public PacketOf<kRelDataBaseRules, RelCorePacket, CDataBasePayload> {
    QUORVEX_BASE(CRelDataBase)

public:
    CRelDataBase(tagTCode code, std::uint8_t relTick, std::uint8_t relIp, std::uint64_t address,
                 const CData& data = CData());
    CRelDataBase(tagTCode code, const CRelCoreContext& context, std::uint64_t address, const CData& data = CData());
};

class QUORVEX_API CRelReadData : public CRelDataBase {
    QUORVEX_KIND(RelReadData, CRelDataBase)

public:
    CRelReadData(std::uint8_t relTick, std::uint8_t relIp, std::uint64_t address, const CData& data = CData());
    CRelReadData(const CRelCoreContext& context, std::uint64_t address, const CData& data = CData());
};

class QUORVEX_API CRelWriteData : public CRelDataBase {
    QUORVEX_KIND(RelWriteData, CRelDataBase)

public:
    CRelWriteData(std::uint8_t relTick, std::uint8_t relIp, std::uint64_t address, const CData& data = CData());
    CRelWriteData(const CRelCoreContext& context, std::uint64_t address, const CData& data = CData());
};

#include "quorvex/packets/KindMacros.def"

} // namespace Quorvex
