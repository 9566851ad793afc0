#pragma once

#include "quorvex/platform/Integers.h"

#include <bit>
#include <cstdint>

/// Eight bytes of a counter, seen as an unsigned integer or as a double; which of the two is meant is not recorded.
/// TCounter_t is a value and TCounterIdx_t an index: alike, but not to be mixed up. A destroyed one holds zeros, by a
/// store that no optimiser removes.
#define QUORVEX_COUNTER_WORD(Name)                                                                                     \
    union Name {                                                                                                       \
        std::uint64_t u64;                                                                                             \
        double dbl;                                                                                                    \
                                                                                                                       \
        Name() : u64(0) {}                                                                                             \
        Name(std::uint64_t value) : u64(value) {}                                                                      \
        Name(Quorvex::OtherUnsigned value) : u64(value) {}                                                             \
        Name(double value) : dbl(value) {}                                                                             \
        Name(const Name& other) : u64(other.u64) {}                                                                    \
        Name& operator=(const Name& other) {                                                                           \
            u64 = other.u64;                                                                                           \
            return *this;                                                                                              \
        }                                                                                                              \
        ~Name() { static_cast<volatile std::uint64_t&>(u64) = 0; }                                                     \
    };

QUORVEX_COUNTER_WORD(TCounter_t)
QUORVEX_COUNTER_WORD(TCounterIdx_t)
#undef QUORVEX_COUNTER_WORD
