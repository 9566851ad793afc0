#pragma once

#include <string>

namespace Quorvex::test {

/// Walks through any bytes with CTraceCursor and with CTraceReaderPlain: where the two differ first, in what they hand
/// out, pass over or stop at; empty when they do not. The cursor gets the bytes as they are, or `portion` at a time.
std::string cursorMismatch(const std::string& trace, unsigned portion = 0);

} // namespace Quorvex::test
