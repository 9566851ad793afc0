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
    require(absolute && bytesOf(*absolute) == bytesOf(packet), "absolute to relative and back");
}

} // namespace

void packet(const std::uint8_t* data, std::size_t size) {
    // A block of the exact size, so that one byte too many is seen.
    const std::unique_ptr<char[]> block(new char[size]);
    std::copy(data, data + size, block.get());
    PacketPointer fromBuffer, fromStream;
    unsigned consumed = 0;
    try {
        fromBuffer.reset(CPacketFactory::getCPacket(block.get(), static_cast<unsigned>(size), consumed));
    } catch (const CQVXException&) {
    }
    std::istringstream stream(std::string(block.get(), size));
    try {
        fromStream.reset(CPacketFactory::getCPacket(stream));
    } catch (const CQVXException&) {
    }
    dropLog();
    if (fromBuffer && isRegular(*fromBuffer, consumed)) {
        const std::string bytes = bytesOf(*fromBuffer);
        // In memory, a definition whose text is cut counts as one without; a stream has no way back.
        require(fromStream ? bytesOf(*fromStream) == bytes : consumed < size, "memory and stream agree");
        unsigned again = 0;
        const PacketPointer second(
            CPacketFactory::getCPacket(bytes.data(), static_cast<unsigned>(bytes.size()), again));
        require(second && again == bytes.size() && bytesOf(*second) == bytes, "write, read, write");
        const PacketPointer copy(CPacketFactory::duplicate(fromBuffer.get()));
        require(copy && bytesOf(*copy) == bytes, "a copy is equal");
        std::ostringstream out;
        require(fromBuffer->write(out) && out.str() == bytes, "both ways of writing agree");
        // Whole packets also read into an object that exists, and cut ones leave it as it was.
        const std::string before = bytesOf(*copy);
        for (const std::size_t cut : {bytes.size() / 2, bytes.size() - 1}) {
            copy->read(bytes.data(), static_cast<unsigned>(cut));
            require(fromBuffer->TraceCode() == CharString || bytesOf(*copy).size() <= before.size(), "a cut packet");
        }
        checkConversion(*fromBuffer, CCoreContext(0x1122334455667788, 1, 2, 0x99AA));
        checkConversion(*fromBuffer, CBusContext(0x1122334455667788, 1, 2));
        checkConversion(*fromBuffer, CSystemContext(0x1122334455667788, 1, 2));
        if (const auto* own = contextOf<CCoreContext>(*fromBuffer))
            checkConversion(*fromBuffer, CCoreContext(own->Tick() ^ 0x55, own->HWCtx(), own->SWCtx(), own->CurrAddr()));
    }
    dropLog();
}

} // namespace Quorvex::fuzz
