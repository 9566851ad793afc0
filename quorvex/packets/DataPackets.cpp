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

template class PayloadOperations<CDataBasePayload, 8>;

template class PacketOf<kDataBaseRules, CorePacket, CDataBasePayload>;
template class PacketOf<kRelDataBaseRules, RelCorePacket, CDataBasePayload>;

QUORVEX_COMPILE_BASE(CDataBase)
QUORVEX_COMPILE_BASE(CRelDataBase)

QUORVEX_COMPILE_PAIR(ReadData)
QUORVEX_COMPILE_PAIR(WriteData)

} // namespace Quorvex
