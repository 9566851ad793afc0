#include "quorvex/packets/SoftwareObjectPackets.h"

namespace Quorvex {

bool CFunctionEnterPayload::SrcFuncIdIsValid() const {
    return m_SrcFuncId < kNoFunction;
}

bool CFunctionEnterPayload::TgtFuncIdIsValid() const {
    return m_TgtFuncId < kNoFunction;
}

void CFunctionEnterPayload::SrcFuncId(std::uint32_t id) {
    m_SrcFuncId = id;
    m_form2 = SrcFuncIdIsValid();
    SetPacketHeaderLength();
}

std::uint32_t CFunctionEnterPayload::SrcFuncId() const {
    return m_SrcFuncId;
}

void CFunctionEnterPayload::TgtFuncId(std::uint32_t id) {
    m_TgtFuncId = id;
}

std::uint32_t CFunctionEnterPayload::TgtFuncId() const {
    return m_TgtFuncId;
}

} // namespace Quorvex
