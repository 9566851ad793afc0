#include "quorvex/packets/DataPackets.h"

#include "quorvex/packets/PacketImplementation.h"

namespace Quorvex {

CDataBasePayload::~CDataBasePayload() {
    platform::overwrite(m_AccAddr, 0xFF);
}

void CDataBasePayload::onReadException(const char* what) {
    logException("CDataBasePayload: Catched exception while reading payload: ", what);
}

void CDataBasePayload::onWriteException(const char* what) {
    logException("CDataBasePayload: Catched exception while writing payload: ", what);
}

constexpr ReadRules kDataBaseRules{.size = "CDataBase: Read-In constructor invalid input buffer size.",
                                   .context = "CDataBase: Read-In constructor could not read context data.",
                                   .payload = {"CDataBase: Read-In constructor could not access data.",
                                               "CDataBase: Read-In constructor could not read data."},
                                   .wholeSize = true};
constexpr ReadRules kRelDataBaseRules{.size = "CRelDataBase: Read-In constructor invalid input buffer size.",
                                      .context = "CRelDataBase: Read-In constructor could not read context data.",
                                      .payload = "CRelDataBase: Read-In constructor could not read data."};

CDataBase::CDataBase(tagTCode code, std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                     std::uint64_t address, const CData& data)
    : PacketOf({tick, hwCtx, swCtx, ip}, code, address, data) {}
CDataBase::CDataBase(tagTCode code, const CCoreContext& context, std::uint64_t address, const CData& data)
    : PacketOf(context.values(), code, address, data) {}

CReadData::CReadData(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                     std::uint64_t address, const CData& data)
    : CDataBase({tick, hwCtx, swCtx, ip}, kCode, address, data) {}
CReadData::CReadData(const CCoreContext& context, std::uint64_t address, const CData& data)
    : CDataBase(context.values(), kCode, address, data) {}

CWriteData::CWriteData(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                       std::uint64_t address, const CData& data)
    : CDataBase({tick, hwCtx, swCtx, ip}, kCode, address, data) {}
CWriteData::CWriteData(const CCoreContext& context, std::uint64_t address, const CData& data)
    : CDataBase(context.values(), kCode, address, data) {}

CRelDataBase::CRelDataBase(tagTCode code, std::uint8_t relTick, std::uint8_t relIp, std::uint64_t address,
                           const CData& data)
    : PacketOf({relTick, relIp}, code, address, data) {}
CRelDataBase::CRelDataBase(tagTCode code, const CRelCoreContext& context, std::uint64_t address, const CData& data)
    : PacketOf(context.values(), code, address, data) {}

CRelReadData::CRelReadData(std::uint8_t relTick, std::uint8_t relIp, std::uint64_t address, const CData& data)
    : CRelDataBase({relTick, relIp}, kCode, address, data) {}
CRelReadData::CRelReadData(const CRelCoreContext& context, std::uint64_t address, const CData& data)
    : CRelDataBase(context.values(), kCode, address, data) {}

CRelWriteData::CRelWriteData(std::uint8_t relTick, std::uint8_t relIp, std::uint64_t address, const CData& data)
    : CRelDataBase({relTick, relIp}, kCode, address, data) {}
CRelWriteData::CRelWriteData(const CRelCoreContext& context, std::uint64_t address, const CData& data)
    : CRelDataBase(context.values(), kCode, address, data) {}

template class PayloadOperations<CDataBasePayload, 8>;

template class PacketOf<kDataBaseRules, CorePacket, CDataBasePayload>;
template class PacketOf<kRelDataBaseRules, RelCorePacket, CDataBasePayload>;

QUORVEX_COMPILE_BASE(CDataBase)
QUORVEX_COMPILE_BASE(CRelDataBase)

QUORVEX_COMPILE_PAIR(ReadData)
QUORVEX_COMPILE_PAIR(WriteData)

} // namespace Quorvex
