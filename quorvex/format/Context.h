#pragma once

/// Where and when a traced event happened. Three kinds of context, each in an absolute and a relative form:
///
///     core    Tick:8|HWCtx:4|SWCtx:4|IP:8      RelTick:1|RelIP:1
///     bus     Tick:8|HWCtx:4|Master:4          RelTick:1
///     system  Tick:8|Channel:4|Master:4        RelTick:1
///
/// A relative context holds the exclusive-or of the lowest byte of the tick (and of the instruction address) against
/// the last full context. It is no difference: ticks 0x1FF and 0x200 differ in more than the lowest byte and cannot be
/// told relatively. A destroyed context holds 0xFF in every byte.

#include "quorvex/format/Fields.h"
#include "quorvex/platform/Export.h"
#include "quorvex/platform/System.h"

#include <cstdint>
#include <iosfwd>

namespace Quorvex {

#include "quorvex/format/Field.def"

/// Marks the constructors by which packets take the values of their context without a context between.
struct FromValues {};

/// The four operations by which a context travels; the buffer forms return the bytes moved, or 0. A failed read
/// leaves the context as it was. What a stream throws while an absolute context is read goes to the message log.
#define QUORVEX_CONTEXT_OPERATIONS                                                                                     \
    bool read(std::istream& in);                                                                                       \
    unsigned read(const char* buf, unsigned size) {                                                                    \
        return part::read(*this, buf, size);                                                                           \
    }                                                                                                                  \
    bool write(std::ostream& out) const;                                                                               \
    unsigned write(char* buf, unsigned size) const {                                                                   \
        return part::write(*this, buf, size);                                                                          \
    }

class QUORVEX_API CCoreContext {
    QUORVEX_FIELD(std::uint64_t, Tick, kUnknown64)     ///< time stamp
    QUORVEX_FIELD(std::uint32_t, HWCtx, 0)             ///< core
    QUORVEX_FIELD(std::uint32_t, SWCtx, 0)             ///< task or thread
    QUORVEX_FIELD(std::uint64_t, CurrAddr, kUnknown64) ///< instruction address

public:
    /// What a context holds.
    struct Values {
        std::uint64_t tick;
        std::uint32_t hwCtx;
        std::uint32_t swCtx;
        std::uint64_t ip;
    };

    CCoreContext() = default;
    CCoreContext(std::uint64_t Tick, std::uint32_t HWCtx, std::uint32_t SWCtx, std::uint64_t CurrAddr)
        : m_Tick(Tick), m_HWCtx(HWCtx), m_SWCtx(SWCtx), m_CurrAddr(CurrAddr) {}
    CCoreContext(const Values& values, FromValues) : CCoreContext(values.tick, values.hwCtx, values.swCtx, values.ip) {}
    CCoreContext(const CCoreContext&) = default;
    CCoreContext& operator=(const CCoreContext&) = default;
    ~CCoreContext() { platform::overwrite(*this, 0xFF); }

    Values values() const { return {m_Tick, m_HWCtx, m_SWCtx, m_CurrAddr}; }
    static constexpr std::uint8_t Len() { return 24; }
    bool operator==(const CCoreContext&) const = default;
    QUORVEX_CONTEXT_OPERATIONS

    template <class Self, class Visitor> static constexpr void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Tick, "Tick", self.m_Tick);
        visit(FieldMeaning::Context, "HWCtx", self.m_HWCtx);
        visit(FieldMeaning::Context, "SWCtx", self.m_SWCtx);
        visit(FieldMeaning::Address, "IP", self.m_CurrAddr);
    }
};

class QUORVEX_API CBusContext {
    QUORVEX_FIELD(std::uint64_t, Tick, kUnknown64)
    QUORVEX_FIELD(std::uint32_t, HWCtx, 0)
    QUORVEX_FIELD(std::uint32_t, Master, 0) ///< bus master

public:
    /// What a context holds.
    struct Values {
        std::uint64_t tick;
        std::uint32_t hwCtx;
        std::uint32_t master;
    };

    CBusContext() = default;
    CBusContext(std::uint64_t Tick, std::uint32_t HWCtx, std::uint32_t Master)
        : m_Tick(Tick), m_HWCtx(HWCtx), m_Master(Master) {}
    CBusContext(const Values& values, FromValues) : CBusContext(values.tick, values.hwCtx, values.master) {}
    CBusContext(const CBusContext&) = default;
    CBusContext& operator=(const CBusContext&) = default;
    ~CBusContext() { platform::overwrite(*this, 0xFF); }

    Values values() const { return {m_Tick, m_HWCtx, m_Master}; }
    static constexpr std::uint8_t Len() { return 16; }
    bool operator==(const CBusContext&) const = default;
    QUORVEX_CONTEXT_OPERATIONS

    template <class Self, class Visitor> static constexpr void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Tick, "Tick", self.m_Tick);
        visit(FieldMeaning::Context, "HWCtx", self.m_HWCtx);
        visit(FieldMeaning::Unit, "Master", self.m_Master);
    }
};

/// Held as tick, master, channel; on the wire and in the constructor the channel comes before the master.
class QUORVEX_API CSystemContext {
    QUORVEX_FIELD(std::uint64_t, Tick, kUnknown64)
    QUORVEX_FIELD(std::uint32_t, Master, 0)
    QUORVEX_FIELD(std::uint32_t, Channel, 0)

public:
    /// What a context holds.
    struct Values {
        std::uint64_t tick;
        std::uint32_t channel;
        std::uint32_t master;
    };

    CSystemContext() = default;
    CSystemContext(std::uint64_t Tick, std::uint32_t Channel, std::uint32_t Master)
        : m_Tick(Tick), m_Master(Master), m_Channel(Channel) {}
    CSystemContext(const Values& values, FromValues) : CSystemContext(values.tick, values.channel, values.master) {}
    CSystemContext(const CSystemContext&) = default;
    CSystemContext& operator=(const CSystemContext&) = default;
    ~CSystemContext() { platform::overwrite(*this, 0xFF); }

    Values values() const { return {m_Tick, m_Channel, m_Master}; }
    static constexpr std::uint8_t Len() { return 16; }
    bool operator==(const CSystemContext&) const = default;
    QUORVEX_CONTEXT_OPERATIONS

    template <class Self, class Visitor> static constexpr void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Tick, "Tick", self.m_Tick);
        visit(FieldMeaning::Unit, "Channel", self.m_Channel);
        visit(FieldMeaning::Unit, "Master", self.m_Master);
    }
};

namespace detail {
constexpr bool differInLowestByte(std::uint64_t a, std::uint64_t b) {
    return (a ^ b) < 0x100;
}
constexpr std::uint8_t lowestByte(std::uint64_t value) {
    return static_cast<std::uint8_t>(value);
}
} // namespace detail

/// The conversions of a relative context, `a` and `b` (or `ref`) being absolute ones:
///   testRelative    whether `b` can be told relative to `a`
///   createRelative  `b` relative to `a`; the form with `out` returns false and leaves `out` alone where it cannot be
///                   done, the other one throws the runtime CQVXException
///   createAbsolute  `ref` with the lowest bytes changed by `rel`; never fails
#define QUORVEX_RELATIVE_OPERATIONS(Rel, Abs)                                                                          \
    static Rel createRelative(const Abs& a, const Abs& b);                                                             \
    static Abs createAbsolute(const Abs& ref, const Rel& rel);                                                         \
    using Absolute = Abs;

class QUORVEX_API CRelCoreContext {
    QUORVEX_FIELD(std::uint8_t, RelTick, 0)
    QUORVEX_FIELD(std::uint8_t, RelCurrAddr, 0)

public:
    /// What a context holds.
    struct Values {
        std::uint8_t relTick;
        std::uint8_t relIp;
    };

    CRelCoreContext() = default;
    CRelCoreContext(std::uint8_t RelTick, std::uint8_t RelCurrAddr) : m_RelTick(RelTick), m_RelCurrAddr(RelCurrAddr) {}
    CRelCoreContext(const Values& values, FromValues) : CRelCoreContext(values.relTick, values.relIp) {}
    CRelCoreContext(const CRelCoreContext&) = default;
    CRelCoreContext& operator=(const CRelCoreContext&) = default;
    ~CRelCoreContext() { platform::overwrite(*this, 0xFF); }

    Values values() const { return {m_RelTick, m_RelCurrAddr}; }
    static constexpr std::uint8_t Len() { return 2; }
    bool operator==(const CRelCoreContext&) const = default;
    QUORVEX_CONTEXT_OPERATIONS
    QUORVEX_RELATIVE_OPERATIONS(CRelCoreContext, CCoreContext)

    static bool testRelative(const CCoreContext& a, const CCoreContext& b) {
        return a.HWCtx() == b.HWCtx() && a.SWCtx() == b.SWCtx() && detail::differInLowestByte(a.Tick(), b.Tick()) &&
               detail::differInLowestByte(a.CurrAddr(), b.CurrAddr());
    }
    static bool createRelative(const CCoreContext& a, const CCoreContext& b, CRelCoreContext& out) {
        if (!testRelative(a, b))
            return false;
        out.RelTick(detail::lowestByte(a.Tick() ^ b.Tick()));
        out.RelCurrAddr(detail::lowestByte(a.CurrAddr() ^ b.CurrAddr()));
        return true;
    }
    static bool createAbsolute(const CCoreContext& ref, const CRelCoreContext& rel, CCoreContext& out) {
        out.Tick(ref.Tick() ^ rel.RelTick());
        out.HWCtx(ref.HWCtx());
        out.SWCtx(ref.SWCtx());
        out.CurrAddr(ref.CurrAddr() ^ rel.RelCurrAddr());
        return true;
    }

    template <class Self, class Visitor> static constexpr void fields(Self& self, Visitor& visit) {
        visit(FieldMeaning::Tick, "RelTick", self.m_RelTick);
        visit(FieldMeaning::Address, "RelIP", self.m_RelCurrAddr);
    }
};

/// The one relative byte that bus and system contexts have. Two types, so that neither passes for the other.
#define QUORVEX_RELATIVE_TICK_CONTEXT(Rel, Abs, Place)                                                                 \
    class QUORVEX_API Rel {                                                                                            \
        QUORVEX_FIELD(std::uint8_t, RelTick, 0)                                                                        \
                                                                                                                       \
    public:                                                                                                            \
        struct Values {                                                                                                \
            std::uint8_t relTick;                                                                                      \
        };                                                                                                             \
                                                                                                                       \
        Rel() = default;                                                                                               \
        Rel(std::uint8_t RelTick) : m_RelTick(RelTick) {}                                                              \
        Rel(const Values& values, FromValues) : Rel(values.relTick) {}                                                 \
        Rel(const Rel&) = default;                                                                                     \
        Rel& operator=(const Rel&) = default;                                                                          \
        ~Rel() { platform::overwrite(*this, 0xFF); }                                                                   \
                                                                                                                       \
        Values values() const { return {m_RelTick}; }                                                                  \
        static constexpr std::uint8_t Len() { return 1; }                                                              \
        bool operator==(const Rel&) const = default;                                                                   \
        QUORVEX_CONTEXT_OPERATIONS                                                                                     \
        QUORVEX_RELATIVE_OPERATIONS(Rel, Abs)                                                                          \
                                                                                                                       \
        static bool testRelative(const Abs& a, const Abs& b) {                                                         \
            return a.Place() == b.Place() && a.Master() == b.Master() &&                                               \
                   detail::differInLowestByte(a.Tick(), b.Tick());                                                     \
        }                                                                                                              \
        static bool createRelative(const Abs& a, const Abs& b, Rel& out) {                                             \
            if (!testRelative(a, b))                                                                                   \
                return false;                                                                                          \
            out.RelTick(detail::lowestByte(a.Tick() ^ b.Tick()));                                                      \
            return true;                                                                                               \
        }                                                                                                              \
        static bool createAbsolute(const Abs& ref, const Rel& rel, Abs& out) {                                         \
            out = ref;                                                                                                 \
            out.Tick(ref.Tick() ^ rel.RelTick());                                                                      \
            return true;                                                                                               \
        }                                                                                                              \
                                                                                                                       \
        template <class Self, class Visitor> static constexpr void fields(Self& self, Visitor& visit) {                \
            visit(FieldMeaning::Tick, "RelTick", self.m_RelTick);                                                      \
        }                                                                                                              \
    };

/// The low byte of the tick, against that of the last bus sync packet.
QUORVEX_RELATIVE_TICK_CONTEXT(CRelBusContext, CBusContext, HWCtx)

/// The low byte of the tick, against that of the last system sync packet.
QUORVEX_RELATIVE_TICK_CONTEXT(CRelSystemContext, CSystemContext, Channel)

#undef QUORVEX_RELATIVE_TICK_CONTEXT
#undef QUORVEX_RELATIVE_OPERATIONS
#undef QUORVEX_CONTEXT_OPERATIONS

#include "quorvex/format/Field.def"

} // namespace Quorvex
