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

/// The address that a branch goes to.
class QUORVEX_API CBranchTarget : public PayloadOperations<CBranchTarget> {
    QUORVEX_PUBLIC_OPERATIONS

public:
    using Forms = FormList<Form<std::uint64_t>>;

    CBranchTarget() = default;
    explicit CBranchTarget(std::uint64_t target) : m_target(target) {}
    CBranchTarget(const CBranchTarget&) = default;
    CBranchTarget& operator=(const CBranchTarget&) = default;

    virtual ~CBranchTarget();
    virtual void BranchTargetAddress(std::uint64_t target);
    virtual std::uint64_t BranchTargetAddress() const;

    static constexpr std::uint8_t Len() { return 8; }
    template <class Self, class Visitor> static void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Address, "BranchTarget", self.m_target);
    }

private:
    std::uint64_t m_target = kUnknown64;
};

/// The number of a hardware exception.
class QUORVEX_API CHWExceptionBasePayload : public PayloadOperations<CHWExceptionBasePayload> {
    QUORVEX_FIELD(std::uint32_t, ExceptionId, 0)

public:
    using Forms = FormList<Form<std::uint32_t>>;

    CHWExceptionBasePayload() = default;
    explicit CHWExceptionBasePayload(std::uint32_t ExceptionId) : m_ExceptionId(ExceptionId) {}

    static constexpr std::uint8_t Len() { return 4; }
    template <class Self, class Visitor> static void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Id, "ExcId", self.m_ExceptionId);
    }
};

inline constexpr ReadRules kExecInsnRules = sameText("CExecInsn: Read-In Constructor could not read context data.");
inline constexpr ReadRules kNonExecInsnRules =
    sameText("CNonExecInsn: Read-In Constructor could not read context data.");
inline constexpr ReadRules kRelExecInsnRules =
    sameText("CRelExecInsn: Read-In Constructor could not read context data.");
inline constexpr ReadRules kRelNonExecInsnRules =
    sameText("CRelNonExecInsn: Read-In Constructor could not read context data.");
inline constexpr ReadRules kTraceBrokenRules =
    sameText("CTraceBroken: Read-In Constructor could not read context from stream");

inline constexpr ReadRules kBranchBaseRules{
    .size = "CBranchBase: Read-In constructor could not read from input.",
    .context = {"CBranchBase: Read-In constructor could not read context from input stream.",
                "CBranchBase: Read-In constructor could not read from input."},
    .payload = {"CBranchBase: Read-In constructor could not read branch target address from input stream.",
                "CBranchBase: Read-In constructor could not read branch target address from input."}};

inline constexpr ReadRules kRelBranchBaseRules{
    .size = "CRelBranchBase: Read-In constructor could not read from input buffer.",
    .context = {"CRelBranchBase: Read-In constructor could not read context from input stream.",
                "CRelBranchBase: Read-In constructor could not read context from input buffer."},
    .payload = {"CRelBranchBase: Read-In constructor could not read branch target address from input stream.",
                "CRelBranchBase: Read-In constructor could not read branch target address from input buffer."}};

inline constexpr ReadRules kHWExceptionBaseRules{
    .size = "CHWExceptionBase: Read-In Constructor could not read data.",
    .context = "CHWExceptionBase: Read-In Constructor could not read context data.",
    .payload = "CHWExceptionBase: Read-In Constructor could not read exception id."};

inline constexpr ReadRules kRelHWExceptionBaseRules{
    .size = "CRelHWExceptionBase: Read-In Constructor could not read data.",
    .context = "CRelHWExceptionBase: Read-In Constructor could not read context data.",
    .payload = "CRelHWExceptionBase: Read-In Constructor could not read exception id."};

QUORVEX_BASE(CBranchBase, kBranchBaseRules, CorePacket, CBranchTarget)
QUORVEX_BASE(CRelBranchBase, kRelBranchBaseRules, RelCorePacket, CBranchTarget)
QUORVEX_BASE(CHWExceptionBase, kHWExceptionBaseRules, CorePacket, CHWExceptionBasePayload)
QUORVEX_BASE(CRelHWExceptionBase, kRelHWExceptionBaseRules, RelCorePacket, CHWExceptionBasePayload)

QUORVEX_KIND(ExecInsn, PacketOf<kExecInsnRules, CorePacket>)
QUORVEX_KIND(NonExecInsn, PacketOf<kNonExecInsnRules, CorePacket>)
QUORVEX_KIND(DirectBranch, CBranchBase)
QUORVEX_KIND(IndirectBranch, CBranchBase)
QUORVEX_KIND(HWExceptionLeave, CHWExceptionBase)
QUORVEX_KIND(HWExceptionEnter, CHWExceptionBase)
QUORVEX_KIND(TraceBroken, PacketOf<kTraceBrokenRules, CorePacket>)

QUORVEX_KIND(RelExecInsn, PacketOf<kRelExecInsnRules, RelCorePacket>)
QUORVEX_KIND(RelNonExecInsn, PacketOf<kRelNonExecInsnRules, RelCorePacket>)
QUORVEX_KIND(RelDirectBranch, CRelBranchBase)
QUORVEX_KIND(RelIndirectBranch, CRelBranchBase)
QUORVEX_KIND(RelHWExceptionLeave, CRelHWExceptionBase)
QUORVEX_KIND(RelHWExceptionEnter, CRelHWExceptionBase)

} // namespace Quorvex
