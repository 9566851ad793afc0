#include "quorvex/format/Context.h"

#include "quorvex/format/Exception.h"
#include "quorvex/format/MessageQueue.h"
#include "quorvex/platform/Attempt.h"

#include <istream>
#include <ostream>

namespace Quorvex {

namespace {

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
