#pragma once

#include <istream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace Quorvex::test {

/// A stream that fails behind its bytes, where others end.
class FailingStream : std::stringbuf, public std::istream {
public:
    explicit FailingStream(const std::string& bytes) : std::stringbuf(bytes), std::istream(this) {}

private:
    int underflow() override { throw std::runtime_error("the device is gone"); }
};

} // namespace Quorvex::test
