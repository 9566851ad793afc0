#include "quorvex/format/Context.h"

#include "quorvex/format/Exception.h"
#include "quorvex/format/MessageQueue.h"
#include "quorvex/platform/Attempt.h"

#include <istream>
#include <ostream>

namespace Quorvex {

namespace {

bool differInLowestByte(std::uint64_t a, std::uint64_t b) {
    return (a ^ b) < 0x100;
}

std::uint8_t lowestByte(std::uint64_t value) {
    return static_cast<std::uint8_t>(value);
}

template <class Context> bool readFrom(std::istream& in, Context& context) {
    char bytes[Context::Len()];
    return in.read(bytes, sizeof bytes) && context.read(bytes, sizeof bytes) != 0;
}

template <class Context> bool readLogged(Context& context, std::istream& in, const char* where) {
    return attempt([&] { return readFrom(in, context); },
                   [where](const std::exception& exception) { logException(where, exception.what()); });
}

template <class Context> bool readQuietly(Context& context, std::istream& in) {
    return attempt([&] { return readFrom(in, context); });
}

template <class Context> bool writeQuietly(const Context& context, std::ostream& out) {
    return attempt([&] {
        char bytes[Context::Len()];
        context.write(bytes, sizeof bytes);
        return out.write(bytes, sizeof bytes).good();
    });
}

} // namespace

bool CCoreContext::read(std::istream& in) {
    return readLogged(*this, in, "CCoreContext::read: Catched exception ");
}

bool CCoreContext::write(std::ostream& out) const {
    return writeQuietly(*this, out);
}

bool CBusContext::read(std::istream& in) {
    return readLogged(*this, in, "CBusContext::read: Catched exception ");
}

bool CBusContext::write(std::ostream& out) const {
    return writeQuietly(*this, out);
}

bool CSystemContext::read(std::istream& in) {
    return readLogged(*this, in, "CSystemContext::read: Catched exception ");
}

bool CSystemContext::write(std::ostream& out) const {
    return writeQuietly(*this, out);
}

bool CRelCoreContext::testRelative(const CCoreContext& a, const CCoreContext& b) {
    return a.HWCtx() == b.HWCtx() && a.SWCtx() == b.SWCtx() && differInLowestByte(a.Tick(), b.Tick()) &&
           differInLowestByte(a.CurrAddr(), b.CurrAddr());
}

bool CRelCoreContext::createRelative(const CCoreContext& a, const CCoreContext& b, CRelCoreContext& out) {
    if (!testRelative(a, b))
        return false;
    out = CRelCoreContext(lowestByte(a.Tick() ^ b.Tick()), lowestByte(a.CurrAddr() ^ b.CurrAddr()));
    return true;
}

bool CRelCoreContext::createAbsolute(const CCoreContext& ref, const CRelCoreContext& rel, CCoreContext& out) {
    out = CCoreContext(ref.Tick() ^ rel.RelTick(), ref.HWCtx(), ref.SWCtx(), ref.CurrAddr() ^ rel.RelCurrAddr());
    return true;
}

bool CRelBusContext::testRelative(const CBusContext& a, const CBusContext& b) {
    return a.HWCtx() == b.HWCtx() && a.Master() == b.Master() && differInLowestByte(a.Tick(), b.Tick());
}

bool CRelSystemContext::testRelative(const CSystemContext& a, const CSystemContext& b) {
    return a.Channel() == b.Channel() && a.Master() == b.Master() && differInLowestByte(a.Tick(), b.Tick());
}

#define QUORVEX_RELATIVE_TICK(Rel, Abs)                                                                                \
    bool Rel::createRelative(const Abs& a, const Abs& b, Rel& out) {                                                   \
        if (!testRelative(a, b))                                                                                       \
            return false;                                                                                              \
        out = Rel(lowestByte(a.Tick() ^ b.Tick()));                                                                    \
        return true;                                                                                                   \
    }                                                                                                                  \
    bool Rel::createAbsolute(const Abs& ref, const Rel& rel, Abs& out) {                                               \
        out = ref;                                                                                                     \
        out.Tick(ref.Tick() ^ rel.RelTick());                                                                          \
        return true;                                                                                                   \
    }

QUORVEX_RELATIVE_TICK(CRelBusContext, CBusContext)
QUORVEX_RELATIVE_TICK(CRelSystemContext, CSystemContext)
#undef QUORVEX_RELATIVE_TICK

#define QUORVEX_RELATIVE_COMMON(Rel, Abs)                                                                              \
    Rel Rel::createRelative(const Abs& a, const Abs& b) {                                                              \
        Rel out;                                                                                                       \
        if (!createRelative(a, b, out))                                                                                \
            CQVXException::ThrowRuntime(#Rel ": cannot create context from mismatching environments");                 \
        return out;                                                                                                    \
    }                                                                                                                  \
    Abs Rel::createAbsolute(const Abs& ref, const Rel& rel) {                                                          \
        Abs out;                                                                                                       \
        createAbsolute(ref, rel, out);                                                                                 \
        return out;                                                                                                    \
    }                                                                                                                  \
    bool Rel::read(std::istream& in) {                                                                                 \
        return readQuietly(*this, in);                                                                                 \
    }                                                                                                                  \
    bool Rel::write(std::ostream& out) const {                                                                         \
        return writeQuietly(*this, out);                                                                               \
    }

QUORVEX_RELATIVE_COMMON(CRelCoreContext, CCoreContext)
QUORVEX_RELATIVE_COMMON(CRelBusContext, CBusContext)
QUORVEX_RELATIVE_COMMON(CRelSystemContext, CSystemContext)
#undef QUORVEX_RELATIVE_COMMON

} // namespace Quorvex
