#pragma once

#include <string>

namespace Quorvex::test {

/// The bytes of a trace that is told in steps:
///
///     @1000          so many ticks are a second
///     =5 name        names function 5; =!5 an event, =^5 one for overflows, =#5 a counter
///     +5 100 2       enters function 5 at tick 100 in thread 2 on core 1; -5 leaves it
///     !5 100 2       event 5
///     #5 100 2 17    counter 5 is 17; 1.5 is a double
///     %5 100 2 17    the same in four bytes; 1.5 is a float
///     "text 100      a message
///
/// The thread "?" is not known, "2@3" is thread 2 on core 3.
std::string traceOfSteps(const std::string& steps);

} // namespace Quorvex::test
