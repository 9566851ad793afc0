#pragma once

#include "quorvex/platform/Export.h"

#include <cstdint>
#include <utility>

namespace Quorvex {

/// Is told how many bytes of traces are read, a block at a time: to show how far long work has come.
class QUORVEX_API ReadWatch {
public:
    virtual ~ReadWatch() = default;
    /// So many bytes have been read. Called by several threads at once; must not throw.
    virtual void read(std::uint64_t bytes) = 0;
};

/// A source that tells a watch of what is read; null: nobody. The watch must outlive it.
template <class Source> class Watched : public Source {
public:
    /// The source is made of the values.
    template <class... Values>
    explicit Watched(ReadWatch* watch, Values&&... values) : Source(std::forward<Values>(values)...), m_watch(watch) {}

    void watchBy(ReadWatch& watch) { m_watch = &watch; } ///< from now on

    using Source::read;
    /// As the source does it.
    bool read(char* dst, unsigned count, unsigned& got) override {
        const bool isRead = Source::read(dst, count, got);
        if (m_watch && got > 0)
            m_watch->read(got);
        return isRead;
    }

private:
    ReadWatch* m_watch;
};

} // namespace Quorvex
