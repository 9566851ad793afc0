#include "quorvex/factory/PacketFactory.h"

#include "quorvex/factory/SpareNodes.h"
#include "quorvex/format/MessageQueue.h"
#include "quorvex/packets/KindFunctions.h"

#include <array>
#include <istream>

namespace Quorvex {

namespace {

/// How packets of one kind change between forms whose contexts are told by `Context`. Null: they do not.
template <class Context> struct Conversion {
    using Function = CPacket* (*)(const CPacket&, const Context& last);
    Function compress = nullptr;
    Function decompress = nullptr;
};

struct Row : Conversion<CCoreContext>, Conversion<CBusContext>, Conversion<CSystemContext> {
    CPacket* (*create)() = nullptr;
    CPacket* (*readStream)(const CPacketHeader&, std::istream&) = nullptr;
    CPacket* (*readBuffer)(const CPacketHeader&, const char*, unsigned, unsigned&) = nullptr;
    CPacket* (*copy)(const CPacket&) = nullptr;
};

using Table = std::array<Row, 256>;

template <class P> constexpr void addKind(Table& table) {
    Row& row = table[P::kCode];
    row.create = KindFunctions<P>::create;
    row.readStream = KindFunctions<P>::read;
    row.readBuffer = KindFunctions<P>::read;
    row.copy = KindFunctions<P>::copy;
}

template <class Context> constexpr Conversion<Context>& conversion(Row& row) {
    return row;
}

template <class Abs, class Rel> constexpr void addPair(Table& table) {
    using Context = typename Abs::Context;
    conversion<Context>(table[Abs::kCode]).compress = PairFunctions<Abs, Rel>::toRelative;
    conversion<Context>(table[Rel::kCode]).decompress = PairFunctions<Abs, Rel>::toAbsolute;
}

constexpr Table makeTable() {
    Table table{};
#define QUORVEX_PACKET(name) addKind<C##name>(table);
#define QUORVEX_ABSOLUTE_PACKET(name)                                                                                  \
    addKind<C##name>(table);                                                                                           \
    addPair<C##name, CRel##name>(table);
#include "quorvex/packets/Packets.def"
    return table;
}

constexpr Table kTable = makeTable();

/// The row of a code; null when it has no class.
const Row* find(tagTCode code) {
    return code < kTable.size() && kTable[code].create ? &kTable[code] : nullptr;
}

/// Runs an allocating step with the library's own exception for a lack of memory.
template <class Step> CPacket* allocating(Step&& step) {
    try {
        return step();
    } catch (const std::bad_alloc&) {
        CQVXException::ThrowOutOfMemory();
    }
}

/// Changes the form of a packet by one of the two functions of a row.
template <auto function, class Context> CPacket* convert(const CPacket* packet, const Context& last) {
    const unsigned code = packet ? packet->TraceCode() : Invalid;
    const Conversion<Context>& conversion = kTable[code < kTable.size() ? code : Invalid];
    try {
        return conversion.*function ? (conversion.*function)(*packet, last) : nullptr;
    } catch (...) {
        return nullptr;
    }
}

} // namespace

CPacket* CPacketFactory::getCPacket(tagTCode code) {
    const Row* row = find(code);
    return row ? allocating(row->create) : nullptr;
}

CPacket* CPacketFactory::getCPacket(const CPacketHeader& header, std::istream& in) {
    const Row* row = find(header.TraceCode());
    return row ? allocating([&] { return row->readStream(header, in); }) : nullptr;
}

CPacket* CPacketFactory::getCPacket(const CPacketHeader& header, const char* buffer, unsigned size,
                                    unsigned& consumed) {
    const Row* row = find(header.TraceCode());
    return row ? allocating([&] { return row->readBuffer(header, buffer, size, consumed); }) : nullptr;
}

CPacket* CPacketFactory::getCPacket(std::istream& in) {
    CPacketHeader header;
    if (!in.good() || !header.read(in))
        return nullptr;
    return getCPacket(header, in);
}

[[gnu::flatten]] CPacket* CPacketFactory::getCPacket(const char* buffer, unsigned size, unsigned& consumed) {
    consumed = 0;
    CPacketHeader header;
    if (!header.read(buffer, size))
        return nullptr;
    CPacket* packet = getCPacket(header, buffer + CPacketHeader::Len(), size - CPacketHeader::Len(), consumed);
    if (packet)
        consumed += CPacketHeader::Len();
    return packet;
}

bool CPacketFactory::releaseCPacket(CPacket** packet) {
    if (!packet || !*packet)
        return false;
    delete std::exchange(*packet, nullptr);
    return true;
}

bool CPacketFactory::release(std::list<CPacket*>& packets) {
    try {
        for (CPacket*& packet : packets)
            delete std::exchange(packet, nullptr);
        detail::clear(packets);
        return true;
    } catch (...) {
        return false;
    }
}

CPacket* CPacketFactory::duplicate(CPacket* packet) {
    const Row* row = packet ? find(packet->TraceCode()) : nullptr;
    return row ? allocating([&] { return row->copy(*packet); }) : nullptr;
}

bool CPacketFactory::duplicate(std::list<CPacket*>& from, std::list<CPacket*>& to) {
    for (CPacket* packet : from) {
        if (!packet)
            continue;
        CPacket* copy = duplicate(packet);
        if (!copy) {
            logError("CPacketFactory: Error during duplication of packets!");
            return false;
        }
        to.push_back(copy);
    }
    return true;
}

CPacket* CPacketFactory::compress(CPacket* packet, const CCoreContext& last) {
    return convert<&Conversion<CCoreContext>::compress>(packet, last);
}

CPacket* CPacketFactory::compress(CPacket* packet, const CBusContext& last) {
    return convert<&Conversion<CBusContext>::compress>(packet, last);
}

CPacket* CPacketFactory::compress(CPacket* packet, const CSystemContext& last) {
    return convert<&Conversion<CSystemContext>::compress>(packet, last);
}

CPacket* CPacketFactory::decompress(CPacket* packet, const CCoreContext& last) {
    return convert<&Conversion<CCoreContext>::decompress>(packet, last);
}

CPacket* CPacketFactory::decompress(CPacket* packet, const CBusContext& last) {
    return convert<&Conversion<CBusContext>::decompress>(packet, last);
}

CPacket* CPacketFactory::decompress(CPacket* packet, const CSystemContext& last) {
    return convert<&Conversion<CSystemContext>::decompress>(packet, last);
}

} // namespace Quorvex
