#include "quorvex/packets/InstructionPackets.h"

#include "quorvex/packets/PacketImplementation.h"

namespace Quorvex {

CBranchTarget::~CBranchTarget() = default;

void CBranchTarget::BranchTargetAddress(std::uint64_t target) {
    m_target = target;
}

std::uint64_t CBranchTarget::BranchTargetAddress() const {
    return m_target;
}

constexpr ReadRules kExecInsnRules = sameText("CExecInsn: Read-In Constructor could not read context data.");
constexpr ReadRules kNonExecInsnRules = sameText("CNonExecInsn: Read-In Constructor could not read context data.");
constexpr ReadRules kRelExecInsnRules = sameText("CRelExecInsn: Read-In Constructor could not read context data.");
constexpr ReadRules kRelNonExecInsnRules =
    sameText("CRelNonExecInsn: Read-In Constructor could not read context data.");
constexpr ReadRules kTraceBrokenRules =
    sameText("CTraceBroken: Read-In Constructor could not read context from stream");

constexpr ReadRules kBranchBaseRules{
    .size = "CBranchBase: Read-In constructor could not read from input.",
    .context = {"CBranchBase: Read-In constructor could not read context from input stream.",
                "CBranchBase: Read-In constructor could not read from input."},
    .payload = {"CBranchBase: Read-In constructor could not read branch target address from input stream.",
                "CBranchBase: Read-In constructor could not read branch target address from input."}};

constexpr ReadRules kRelBranchBaseRules{
    .size = "CRelBranchBase: Read-In constructor could not read from input buffer.",
    .context = {"CRelBranchBase: Read-In constructor could not read context from input stream.",
                "CRelBranchBase: Read-In constructor could not read context from input buffer."},
    .payload = {"CRelBranchBase: Read-In constructor could not read branch target address from input stream.",
                "CRelBranchBase: Read-In constructor could not read branch target address from input buffer."}};

constexpr ReadRules kHWExceptionBaseRules{
    .size = "CHWExceptionBase: Read-In Constructor could not read data.",
    .context = "CHWExceptionBase: Read-In Constructor could not read context data.",
    .payload = "CHWExceptionBase: Read-In Constructor could not read exception id."};

constexpr ReadRules kRelHWExceptionBaseRules{
    .size = "CRelHWExceptionBase: Read-In Constructor could not read data.",
    .context = "CRelHWExceptionBase: Read-In Constructor could not read context data.",
    .payload = "CRelHWExceptionBase: Read-In Constructor could not read exception id."};

template class PayloadOperations<CBranchTarget>;
template class PayloadOperations<CHWExceptionBasePayload>;

template class PacketOf<kBranchBaseRules, CorePacket, CBranchTarget>;
template class PacketOf<kHWExceptionBaseRules, CorePacket, CHWExceptionBasePayload>;
template class PacketOf<kExecInsnRules, CorePacket>;
template class PacketOf<kNonExecInsnRules, CorePacket>;
template class PacketOf<kTraceBrokenRules, CorePacket>;
template class PacketOf<kRelBranchBaseRules, RelCorePacket, CBranchTarget>;
template class PacketOf<kRelHWExceptionBaseRules, RelCorePacket, CHWExceptionBasePayload>;
template class PacketOf<kRelExecInsnRules, RelCorePacket>;
template class PacketOf<kRelNonExecInsnRules, RelCorePacket>;

QUORVEX_COMPILE_BASE(CBranchBase)
QUORVEX_COMPILE_BASE(CHWExceptionBase)
QUORVEX_COMPILE_BASE(CRelBranchBase)
QUORVEX_COMPILE_BASE(CRelHWExceptionBase)

QUORVEX_COMPILE_PAIR(ExecInsn)
QUORVEX_COMPILE_PAIR(NonExecInsn)
QUORVEX_COMPILE_PAIR(DirectBranch)
QUORVEX_COMPILE_PAIR(IndirectBranch)
QUORVEX_COMPILE_PAIR(HWExceptionLeave)
QUORVEX_COMPILE_PAIR(HWExceptionEnter)
QUORVEX_COMPILE_KIND(TraceBroken)

} // namespace Quorvex
