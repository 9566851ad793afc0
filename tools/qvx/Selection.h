#pragma once

#include <memory>

namespace Quorvex {
class CPacket;
}

namespace qvx {

class Verb;

/// Which packets of a trace a verb is for. The options that tell it are the same for every verb that has them, and
/// stand in Selection.cpp alone.
class Selection {
public:
    Selection();
    ~Selection();
    Selection(const Selection&) = delete;
    Selection& operator=(const Selection&) = delete;

    void addOptions(Verb& verb);

    /// The next selected packet of a source, of which next() gives all; null behind the last one.
    template <class Source> auto next(Source& source) {
        decltype(source.next()) packet;
        while (!isComplete() && (packet = source.next()) && !takes(*packet)) {
        }
        return packet;
    }

private:
    struct Options;

    /// Whether nothing more is selected, whatever comes.
    bool isComplete() const;
    bool takes(const Quorvex::CPacket& packet);

    std::unique_ptr<Options> m_options;
};

} // namespace qvx
