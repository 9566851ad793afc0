#pragma once

/// Reads and writes of target memory.
///
///     ReadData, WriteData   context | DataAddr:8 | 0 to 64 bytes of data
///
/// The context is the core context in the absolute kinds and the relative core context in the relative ones.

#include "quorvex/format/Data.h"
#include "quorvex/packets/PacketProtocol.h"

namespace Quorvex {

/// The address that is accessed, and the bytes that were read or written there.
class QUORVEX_API CDataBasePayload : public PayloadOperations<CDataBasePayload, 8> {
    QUORVEX_FIELD(std::uint64_t, AccAddr, kUnknown64)

public:
    using Forms = FormList<Form<std::uint64_t>, Form<std::uint64_t, const CData&>>;
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
    template <class Self, class Visitor> static void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Address, "DataAddr", self.m_AccAddr);
        visit(FieldMeaning::Bytes, "Data", self.m_AccData);
    }
    static void onReadException(const char* what);
    static void onWriteException(const char* what);

private:
    CData m_AccData;

    QUORVEX_RESIZABLE
};

inline constexpr ReadRules kDataBaseRules{.size = "CDataBase: Read-In constructor invalid input buffer size.",
                                          .context = "CDataBase: Read-In constructor could not read context data.",
                                          .payload = {"CDataBase: Read-In constructor could not access data.",
                                                      "CDataBase: Read-In constructor could not read data."},
                                          .wholeSize = true};
inline constexpr ReadRules kRelDataBaseRules{.size = "CRelDataBase: Read-In constructor invalid input buffer size.",
                                             .context =
                                                 "CRelDataBase: Read-In constructor could not read context data.",
                                             .payload = "CRelDataBase: Read-In constructor could not read data."};

QUORVEX_BASE(CDataBase, kDataBaseRules, CorePacket, CDataBasePayload)
QUORVEX_BASE(CRelDataBase, kRelDataBaseRules, RelCorePacket, CDataBasePayload)

QUORVEX_KIND(ReadData, CDataBase)
QUORVEX_KIND(WriteData, CDataBase)
QUORVEX_KIND(RelReadData, CRelDataBase)
QUORVEX_KIND(RelWriteData, CRelDataBase)

} // namespace Quorvex
