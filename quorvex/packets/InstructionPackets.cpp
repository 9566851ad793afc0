#include "quorvex/packets/InstructionPackets.h"

namespace Quorvex {

CBranchTarget::~CBranchTarget() = default;

void CBranchTarget::BranchTargetAddress(std::uint64_t target) {
    m_target = target;
}

std::uint64_t CBranchTarget::BranchTargetAddress() const {
    return m_target;
}

bool CBranchTarget::read(std::istream& in) {
    try {
        return part::read(*this, in);
    } catch (const std::exception&) {
        return false;
    }
}

bool CBranchTarget::write(std::ostream& out) const {
    try {
        return part::write(*this, out);
    } catch (const std::exception&) {
        return false;
    }
}

} // namespace Quorvex
