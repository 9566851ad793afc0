#pragma once

#include <iostream>
#include <streambuf>

namespace Quorvex::test {

/// A stream of a host that at every byte does what the host likes, which is to throw or to end the thread.
class OddStream : std::streambuf, public std::iostream {
public:
    explicit OddStream(void (*act)()) : std::iostream(this), m_act(act) { exceptions(std::ios::badbit); }

private:
    int underflow() override { return overflow(); }
    int overflow(int = 0) override {
        m_act();
        return -1;
    }

    void (*m_act)();
};

} // namespace Quorvex::test
