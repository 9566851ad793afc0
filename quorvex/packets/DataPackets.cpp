#include "quorvex/packets/DataPackets.h"

namespace Quorvex {

CDataBasePayload::~CDataBasePayload() {
    platform::overwrite(&m_AccAddr, 0xFF, sizeof m_AccAddr);
}

void CDataBasePayload::onReadException(const char* what) {
    logException("CDataBasePayload: Catched exception while reading payload: ", what);
}

void CDataBasePayload::onWriteException(const char* what) {
    logException("CDataBasePayload: Catched exception while writing payload: ", what);
}

} // namespace Quorvex
