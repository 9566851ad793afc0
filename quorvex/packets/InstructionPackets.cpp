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

CBranchBase::CBranchBase(tagTCode code, std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                         std::uint64_t target)
    : PacketOf({tick, hwCtx, swCtx, ip}, code, target) {}
CBranchBase::CBranchBase(tagTCode code, const CCoreContext& context, std::uint64_t target)
    : PacketOf(context.values(), code, target) {}

CHWExceptionBase::CHWExceptionBase(tagTCode code, std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx,
                                   std::uint64_t ip, std::uint32_t exception)
    : PacketOf({tick, hwCtx, swCtx, ip}, code, exception) {}
CHWExceptionBase::CHWExceptionBase(tagTCode code, const CCoreContext& context, std::uint32_t exception)
    : PacketOf(context.values(), code, exception) {}

CNonExecInsn::CNonExecInsn(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip)
    : PacketOf({tick, hwCtx, swCtx, ip}, kCode) {}
CNonExecInsn::CNonExecInsn(const CCoreContext& context) : PacketOf(context.values(), kCode) {}

CDirectBranch::CDirectBranch(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                             std::uint64_t target)
    : CBranchBase({tick, hwCtx, swCtx, ip}, kCode, target) {}
CDirectBranch::CDirectBranch(const CCoreContext& context, std::uint64_t target)
    : CBranchBase(context.values(), kCode, target) {}

CIndirectBranch::CIndirectBranch(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                                 std::uint64_t target)
    : CBranchBase({tick, hwCtx, swCtx, ip}, kCode, target) {}
CIndirectBranch::CIndirectBranch(const CCoreContext& context, std::uint64_t target)
    : CBranchBase(context.values(), kCode, target) {}

CHWExceptionLeave::CHWExceptionLeave(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                                     std::uint32_t exception)
    : CHWExceptionBase({tick, hwCtx, swCtx, ip}, kCode, exception) {}
CHWExceptionLeave::CHWExceptionLeave(const CCoreContext& context, std::uint32_t exception)
    : CHWExceptionBase(context.values(), kCode, exception) {}

CHWExceptionEnter::CHWExceptionEnter(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                                     std::uint32_t exception)
    : CHWExceptionBase({tick, hwCtx, swCtx, ip}, kCode, exception) {}
CHWExceptionEnter::CHWExceptionEnter(const CCoreContext& context, std::uint32_t exception)
    : CHWExceptionBase(context.values(), kCode, exception) {}

CTraceBroken::CTraceBroken(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip)
    : PacketOf({tick, hwCtx, swCtx, ip}, kCode) {}
CTraceBroken::CTraceBroken(const CCoreContext& context) : PacketOf(context.values(), kCode) {}

CRelBranchBase::CRelBranchBase(tagTCode code, std::uint8_t relTick, std::uint8_t relIp, std::uint64_t target)
    : PacketOf({relTick, relIp}, code, target) {}
CRelBranchBase::CRelBranchBase(tagTCode code, const CRelCoreContext& context, std::uint64_t target)
    : PacketOf(context.values(), code, target) {}

CRelHWExceptionBase::CRelHWExceptionBase(tagTCode code, std::uint8_t relTick, std::uint8_t relIp,
                                         std::uint32_t exception)
    : PacketOf({relTick, relIp}, code, exception) {}
CRelHWExceptionBase::CRelHWExceptionBase(tagTCode code, const CRelCoreContext& context, std::uint32_t exception)
    : PacketOf(context.values(), code, exception) {}

CRelExecInsn::CRelExecInsn(std::uint8_t relTick, std::uint8_t relIp) : PacketOf({relTick, relIp}, kCode) {}
CRelExecInsn::CRelExecInsn(const CRelCoreContext& context) : PacketOf(context.values(), kCode) {}

CRelNonExecInsn::CRelNonExecInsn(std::uint8_t relTick, std::uint8_t relIp) : PacketOf({relTick, relIp}, kCode) {}
CRelNonExecInsn::CRelNonExecInsn(const CRelCoreContext& context) : PacketOf(context.values(), kCode) {}

CRelDirectBranch::CRelDirectBranch(std::uint8_t relTick, std::uint8_t relIp, std::uint64_t target)
    : CRelBranchBase({relTick, relIp}, kCode, target) {}
CRelDirectBranch::CRelDirectBranch(const CRelCoreContext& context, std::uint64_t target)
    : CRelBranchBase(context.values(), kCode, target) {}

CRelIndirectBranch::CRelIndirectBranch(std::uint8_t relTick, std::uint8_t relIp, std::uint64_t target)
    : CRelBranchBase({relTick, relIp}, kCode, target) {}
CRelIndirectBranch::CRelIndirectBranch(const CRelCoreContext& context, std::uint64_t target)
    : CRelBranchBase(context.values(), kCode, target) {}

CRelHWExceptionLeave::CRelHWExceptionLeave(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t exception)
    : CRelHWExceptionBase({relTick, relIp}, kCode, exception) {}
CRelHWExceptionLeave::CRelHWExceptionLeave(const CRelCoreContext& context, std::uint32_t exception)
    : CRelHWExceptionBase(context.values(), kCode, exception) {}

CRelHWExceptionEnter::CRelHWExceptionEnter(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t exception)
    : CRelHWExceptionBase({relTick, relIp}, kCode, exception) {}
CRelHWExceptionEnter::CRelHWExceptionEnter(const CRelCoreContext& context, std::uint32_t exception)
    : CRelHWExceptionBase(context.values(), kCode, exception) {}

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
