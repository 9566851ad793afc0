// A packet is the same whether it comes from memory or from a stream; written and read again it has the same bytes;
// a copy is equal; made relative and absolute again it is what it was. Nothing but CQVXException is thrown.

#include "fuzz/Targets.h"
#include "fuzz/Traces.h"

#include <sstream>

namespace Quorvex::fuzz {

namespace {

template <class Context> void checkConversion(CPacket& packet, const Context& reference) {
    const PacketPointer relative(CPacketFactory::compress(&packet, reference));
    if (!relative)
        return;
    const PacketPointer absolute(CPacketFactory::decompress(relative.get(), reference));
    require(absolute && wireOf(*absolute) == wireOf(packet), "absolute to relative and back");
}

} // namespace

void packet(const std::string& data) {
    const auto [fromBuffer, fromStream, consumed] = ReadBothWays(data);
    if (fromBuffer && isRegular(*fromBuffer, consumed)) {
        const std::string bytes = wireOf(*fromBuffer);
        // In memory, a definition whose text is cut counts as one without; a stream has no way back.
        require(fromStream ? wireOf(*fromStream) == bytes : consumed < data.size(), "memory and stream agree");
        const PacketPointer second = packetOf(bytes);
        require(second && wireOf(*second) == bytes, "write, read, write");
        const PacketPointer copy(CPacketFactory::duplicate(fromBuffer.get()));
        require(copy && wireOf(*copy) == bytes, "a copy is equal");
        std::ostringstream out;
        require(fromBuffer->write(out) && out.str() == bytes, "both ways of writing agree");
        // A cut packet may also be read into an object that exists.
        for (const std::size_t cut : {bytes.size() / 2, bytes.size() - 1}) {
            const ExactBlock part(bytes.substr(0, cut));
            copy->read(part.data(), part.size());
            require(fromBuffer->TraceCode() == CharString || wireOf(*copy).size() <= bytes.size(), "a cut packet");
        }
        checkConversion(*fromBuffer, CCoreContext(0x1122334455667788, 1, 2, 0x99AA));
        checkConversion(*fromBuffer, CBusContext(0x1122334455667788, 1, 2));
        checkConversion(*fromBuffer, CSystemContext(0x1122334455667788, 1, 2));
        if (const auto* own = contextOf<CCoreContext>(*fromBuffer))
            checkConversion(*fromBuffer, CCoreContext(own->Tick() ^ 0x55, own->HWCtx(), own->SWCtx(), own->CurrAddr()));
    }
}

} // namespace Quorvex::fuzz
