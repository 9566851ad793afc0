#pragma once

#include "quorvex/platform/Export.h"

namespace Quorvex {

class CQVXInstrumentingStream;

/// Records that the calling thread enters a function, and on destruction that it leaves it. The first use in a thread
/// also announces the function's name. Where there is no stream nothing happens.
///
/// Use it through QUORVEX_TRACE_FUNCTION or QUORVEX_TRACE_SCOPE, which keep one Site for each place in the program.
class QUORVEX_API CFunctionScope {
public:
    /// A place in the program: a name, which must live as long as the program, and an id of its own.
    struct Site {
        const char* name;
        unsigned id = 0; ///< in all threads; 0 until one of them announces it

        constexpr explicit Site(const char* siteName) : name(siteName) {}
    };

    /// `announced` is the calling thread's own memory of the stream in which it has announced the site.
    CFunctionScope(Site& site, CQVXInstrumentingStream*& announced) : m_id(enter(site, announced)) {}
    CFunctionScope(const CFunctionScope&) = delete;
    CFunctionScope& operator=(const CFunctionScope&) = delete;
    ~CFunctionScope() {
        if (m_id != 0)
            leave(m_id);
    }

private:
    /// The id of the site; 0 where there is no stream.
    static unsigned enter(Site& site, CQVXInstrumentingStream*& announced);
    static void leave(unsigned id);

    const unsigned m_id;
};

} // namespace Quorvex

#if defined(QUORVEX_NO_TRACE)

/// Nothing is recorded, and nothing is left of it in the program.
#define QUORVEX_TRACE_SCOPE(name) static_cast<void>(0)
#define QUORVEX_TRACE_FUNCTION() static_cast<void>(0)

#else

#define QUORVEX_JOIN_2(a, b) a##b
#define QUORVEX_JOIN(a, b) QUORVEX_JOIN_2(a, b)

/// Records the enclosing scope under a name.
#define QUORVEX_TRACE_SCOPE(name)                                                                                      \
    static ::Quorvex::CFunctionScope::Site QUORVEX_JOIN(quorvex_site_, __LINE__)(name);                                \
    static constinit thread_local ::Quorvex::CQVXInstrumentingStream* QUORVEX_JOIN(quorvex_stream_, __LINE__) =        \
        nullptr;                                                                                                       \
    const ::Quorvex::CFunctionScope QUORVEX_JOIN(quorvex_scope_, __LINE__)(QUORVEX_JOIN(quorvex_site_, __LINE__),      \
                                                                           QUORVEX_JOIN(quorvex_stream_, __LINE__))

/// Records the enclosing function under its own name.
#define QUORVEX_TRACE_FUNCTION() QUORVEX_TRACE_SCOPE(static_cast<const char*>(__func__))

#endif
