#pragma once

/// Program flow on a core.
///
///     ExecInsn, NonExecInsn, TraceBroken     context
///     DirectBranch, IndirectBranch           context | BranchTarget:8
///     HWExceptionEnter, HWExceptionLeave     context | ExcId:4
///
/// The context is the core context in the absolute kinds and the relative core context in the relative ones.
/// The Read-In constructors take a header as it comes: neither its code nor its length is compared with the class. A
/// plain read does compare them, and a write puts the length of what it writes: else the next reader would lose step.

#include "quorvex/packets/PacketProtocol.h"

namespace Quorvex {

#include "quorvex/packets/KindMacros.def"

QUORVEX_PAYLOAD(CBranchTarget)
QUORVEX_PAYLOAD(CHWExceptionBasePayload)

/// The address that a branch goes to.
class QUORVEX_API CBranchTarget : public PayloadOperations<CBranchTarget> {
    QUORVEX_PUBLIC_OPERATIONS

public:
    CBranchTarget() = default;
    explicit CBranchTarget(std::uint64_t target) : m_target(target) {}
    CBranchTarget(const CBranchTarget&) = default;
    CBranchTarget& operator=(const CBranchTarget&) = default;

    virtual ~CBranchTarget();
    virtual void BranchTargetAddress(std::uint64_t target);
    virtual std::uint64_t BranchTargetAddress() const;

    static constexpr std::uint8_t Len() { return 8; }
    template <class Self, class Visitor> static constexpr void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Address, "BranchTarget", self.m_target);
    }

private:
    std::uint64_t m_target = kUnknown64;
};

/// The number of a hardware exception.
class QUORVEX_API CHWExceptionBasePayload : public PayloadOperations<CHWExceptionBasePayload> {
    QUORVEX_FIELD(std::uint32_t, ExceptionId, 0)

public:
    CHWExceptionBasePayload() = default;
    explicit CHWExceptionBasePayload(std::uint32_t ExceptionId) : m_ExceptionId(ExceptionId) {}

    static constexpr std::uint8_t Len() { return 4; }
    template <class Self, class Visitor> static constexpr void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Id, "ExcId", self.m_ExceptionId);
    }
};

// Defined with the texts of their failures, and compiled, in InstructionPackets.cpp.
extern QUORVEX_TEMPLATE_API const ReadRules kExecInsnRules, kNonExecInsnRules, kRelExecInsnRules, kRelNonExecInsnRules,
    kTraceBrokenRules, kBranchBaseRules, kRelBranchBaseRules, kHWExceptionBaseRules, kRelHWExceptionBaseRules;

QUORVEX_EXTERN_TEMPLATE(PacketOf<kBranchBaseRules, CorePacket, CBranchTarget>)
class QUORVEX_API CBranchBase : public PacketOf<kBranchBaseRules, CorePacket, CBranchTarget> {
    QUORVEX_BASE(CBranchBase)

public:
    CBranchBase(tagTCode code, std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                std::uint64_t target);
    CBranchBase(tagTCode code, const CCoreContext& context, std::uint64_t target);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kHWExceptionBaseRules, CorePacket, CHWExceptionBasePayload>)
class QUORVEX_API CHWExceptionBase : public PacketOf<kHWExceptionBaseRules, CorePacket, CHWExceptionBasePayload> {
    QUORVEX_BASE(CHWExceptionBase)

public:
    CHWExceptionBase(tagTCode code, std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                     std::uint32_t exception);
    CHWExceptionBase(tagTCode code, const CCoreContext& context, std::uint32_t exception);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kExecInsnRules, CorePacket>)
class QUORVEX_API CExecInsn : public PacketOf<kExecInsnRules, CorePacket> {
    QUORVEX_KIND(ExecInsn, PacketOf)

public:
    CExecInsn(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip)
        : PacketOf({tick, hwCtx, swCtx, ip}, kCode) {}
    CExecInsn(const CCoreContext& context) : PacketOf(context.values(), kCode) {}
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kNonExecInsnRules, CorePacket>)
class QUORVEX_API CNonExecInsn : public PacketOf<kNonExecInsnRules, CorePacket> {
    QUORVEX_KIND(NonExecInsn, PacketOf)

public:
    CNonExecInsn(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip);
    CNonExecInsn(const CCoreContext& context);
};

class QUORVEX_API CDirectBranch : public CBranchBase {
    QUORVEX_KIND(DirectBranch, CBranchBase)

public:
    CDirectBranch(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip, std::uint64_t target);
    CDirectBranch(const CCoreContext& context, std::uint64_t target);
};

class QUORVEX_API CIndirectBranch : public CBranchBase {
    QUORVEX_KIND(IndirectBranch, CBranchBase)

public:
    CIndirectBranch(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                    std::uint64_t target);
    CIndirectBranch(const CCoreContext& context, std::uint64_t target);
};

class QUORVEX_API CHWExceptionLeave : public CHWExceptionBase {
    QUORVEX_KIND(HWExceptionLeave, CHWExceptionBase)

public:
    CHWExceptionLeave(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                      std::uint32_t exception);
    CHWExceptionLeave(const CCoreContext& context, std::uint32_t exception);
};

class QUORVEX_API CHWExceptionEnter : public CHWExceptionBase {
    QUORVEX_KIND(HWExceptionEnter, CHWExceptionBase)

public:
    CHWExceptionEnter(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip,
                      std::uint32_t exception);
    CHWExceptionEnter(const CCoreContext& context, std::uint32_t exception);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kTraceBrokenRules, CorePacket>)
class QUORVEX_API CTraceBroken : public PacketOf<kTraceBrokenRules, CorePacket> {
    QUORVEX_KIND(TraceBroken, PacketOf)

public:
    CTraceBroken(std::uint64_t tick, std::uint32_t hwCtx, std::uint32_t swCtx, std::uint64_t ip);
    CTraceBroken(const CCoreContext& context);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kRelBranchBaseRules, RelCorePacket, CBranchTarget>)
class QUORVEX_API CRelBranchBase : public PacketOf<kRelBranchBaseRules, RelCorePacket, CBranchTarget> {
    QUORVEX_BASE(CRelBranchBase)

public:
    CRelBranchBase(tagTCode code, std::uint8_t relTick, std::uint8_t relIp, std::uint64_t target);
    CRelBranchBase(tagTCode code, const CRelCoreContext& context, std::uint64_t target);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kRelHWExceptionBaseRules, RelCorePacket, CHWExceptionBasePayload>)
class QUORVEX_API CRelHWExceptionBase
    : public PacketOf<kRelHWExceptionBaseRules, RelCorePacket, CHWExceptionBasePayload> {
    QUORVEX_BASE(CRelHWExceptionBase)

public:
    CRelHWExceptionBase(tagTCode code, std::uint8_t relTick, std::uint8_t relIp, std::uint32_t exception);
    CRelHWExceptionBase(tagTCode code, const CRelCoreContext& context, std::uint32_t exception);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kRelExecInsnRules, RelCorePacket>)
class QUORVEX_API CRelExecInsn : public PacketOf<kRelExecInsnRules, RelCorePacket> {
    QUORVEX_KIND(RelExecInsn, PacketOf)

public:
    CRelExecInsn(std::uint8_t relTick, std::uint8_t relIp);
    CRelExecInsn(const CRelCoreContext& context);
};

QUORVEX_EXTERN_TEMPLATE(PacketOf<kRelNonExecInsnRules, RelCorePacket>)
class QUORVEX_API CRelNonExecInsn : public PacketOf<kRelNonExecInsnRules, RelCorePacket> {
    QUORVEX_KIND(RelNonExecInsn, PacketOf)

public:
    CRelNonExecInsn(std::uint8_t relTick, std::uint8_t relIp);
    CRelNonExecInsn(const CRelCoreContext& context);
};

class QUORVEX_API CRelDirectBranch : public CRelBranchBase {
    QUORVEX_KIND(RelDirectBranch, CRelBranchBase)

public:
    CRelDirectBranch(std::uint8_t relTick, std::uint8_t relIp, std::uint64_t target);
    CRelDirectBranch(const CRelCoreContext& context, std::uint64_t target);
};

class QUORVEX_API CRelIndirectBranch : public CRelBranchBase {
    QUORVEX_KIND(RelIndirectBranch, CRelBranchBase)

public:
    CRelIndirectBranch(std::uint8_t relTick, std::uint8_t relIp, std::uint64_t target);
    CRelIndirectBranch(const CRelCoreContext& context, std::uint64_t target);
};

class QUORVEX_API CRelHWExceptionLeave : public CRelHWExceptionBase {
    QUORVEX_KIND(RelHWExceptionLeave, CRelHWExceptionBase)

public:
    CRelHWExceptionLeave(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t exception);
    CRelHWExceptionLeave(const CRelCoreContext& context, std::uint32_t exception);
};

class QUORVEX_API CRelHWExceptionEnter : public CRelHWExceptionBase {
    QUORVEX_KIND(RelHWExceptionEnter, CRelHWExceptionBase)

public:
    CRelHWExceptionEnter(std::uint8_t relTick, std::uint8_t relIp, std::uint32_t exception);
    CRelHWExceptionEnter(const CRelCoreContext& context, std::uint32_t exception);
};

#include "quorvex/packets/KindMacros.def"

} // namespace Quorvex
