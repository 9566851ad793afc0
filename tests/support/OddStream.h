#pragma once

#include <iostream>
#include <streambuf>

namespace Quorvex::test {

/// A stream of a host that at every byte does what the host likes, which is to throw, to end the thread, or to take it.
class OddStream : std::streambuf, public std::iostream {
public:
    explicit OddStream(void (*act)()) : std::iostream(this), m_act(act) { exceptions(std::ios::badbit); }

private:
    int underflow() override {
        m_act();
        return -1;
    }
    int overflow(int c) override {
        m_act();
        return std::char_traits<char>::not_eof(c);
    }

    void (*m_act)();
};

} // namespace Quorvex::test
