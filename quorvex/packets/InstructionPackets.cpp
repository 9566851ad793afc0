#include "quorvex/packets/InstructionPackets.h"

namespace Quorvex {

CBranchTarget::~CBranchTarget() = default;

void CBranchTarget::BranchTargetAddress(std::uint64_t target) {
    m_target = target;
}

std::uint64_t CBranchTarget::BranchTargetAddress() const {
    return m_target;
}

} // namespace Quorvex
