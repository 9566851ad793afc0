#pragma once

/// Calls into code of the host, which may throw what it likes: its streams above all.

#include <exception>

#if defined(__GLIBCXX__)
#include <cxxabi.h>
#endif

namespace Quorvex {

/// Whether `step` says so; false when it throws, whatever it throws. `report` is told of standard exceptions. The end
/// of a cancelled thread, which unwinds the stack as an exception would, passes through.
template <class Step, class Report>
#if defined(__GLIBCXX__)
__attribute__((no_sanitize("null"))) // there is no object where a thread ends
#endif
bool attempt(Step&& step, Report&& report) {
    try {
        return step();
    }
#if defined(__GLIBCXX__)
    catch (const abi::__forced_unwind&) {
        throw;
    }
#endif
    catch (const std::exception& exception) {
        report(exception);
        return false;
    } catch (...) {
        return false;
    }
}

/// The same without a report.
template <class Step> bool attempt(Step&& step) {
    return attempt(step, [](const std::exception&) {});
}

} // namespace Quorvex
