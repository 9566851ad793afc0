#include "quorvex/export/CtfWriter.h"
#include "quorvex/export/ViewerFormats.h"
#include "quorvex/format/Digits.h"
#include "quorvex/packets/PacketKinds.h"
#include "tests/support/Golden.h"

#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace Quorvex::test {
namespace {

using Packets = std::vector<std::shared_ptr<CPacket>>;

const ViewerFormat& formatOf(std::string_view name) {
    for (const ViewerFormat& format : viewerFormats()) {
        if (format.name == name)
            return format;
    }
    throw std::runtime_error("no such format");
}

/// What a trace becomes. Behind it, in lines, what is lost.
std::string written(std::string_view name, const Packets& packets) {
    std::ostringstream out;
    ViewerOptions options;
    options.inputs = "a.qvx";
    const auto writer = formatOf(name).make(out, options);
    for (const auto& packet : packets)
        EXPECT_TRUE(writer->put(packet.get()));
    writer->flush();
    EXPECT_TRUE(writer->written());
    std::string text = out.str();
    for (const auto& [what, count] : writer->losses())
        text += "lost: " + what + " (" + std::to_string(count) + ")\n";
    return text;
}

CCoreContext placeAt(std::uint64_t tick, std::uint32_t core = 0, std::uint32_t thread = 7) {
    return {tick, core, thread, kUnknown64};
}

template <class Packet, class... Values> std::shared_ptr<CPacket> make(const Values&... values) {
    return std::make_shared<Packet>(values...);
}

/// A bit of all that there is. Names and the clock are told late.
Packets scene() {
    CCounterValueDim1 cell(placeAt(1040), 4U, TCounter_t(std::uint64_t{5}), TCounterIdx_t(std::uint64_t{2}));
    return {
        make<CFunctionEnter>(placeAt(1000), 1U),
        make<CTimestamp>(std::uint64_t{1000}, std::uint64_t{1'000'000'000}),
        make<CFunctionEnter>(placeAt(1010), 2U),
        make<CHWExceptionEnter>(placeAt(1012), 5U),
        make<CHWExceptionLeave>(placeAt(1014), 5U),
        make<CCounterDefine>(placeAt(1015), 4U, std::uint8_t{0}, "hits"),
        make<CCounterDefineUnit>(placeAt(1015), 4U, std::uint8_t{0}, "ms"),
        make<CCounterValue>(placeAt(1015), 4U, TCounter_t(std::uint64_t{3})),
        make<CCounterValue>(placeAt(1015), 5U, TCounter_t(0.0)),
        make<CCounterValue>(placeAt(1016), 5U, TCounter_t(0.5)),
        make<CEventDefine>(6U, Watchpoint, "e"),
        make<CEvent>(placeAt(1016), 6U, CData(std::uint16_t{0x102})),
        make<CMessage>(std::uint64_t{1017}, std::int8_t{-64}, "h\"i\xff"),
        make<CCharString>("free, text"),
        make<CFunctionLeave>(placeAt(1020), 2U),
        make<CFunctionDefine>(placeAt(1021), 1U, "main"),
        make<CFunctionDefine>(placeAt(1021), 2U, "a;\"\n,\xc3\xa9"),
        make<CStateMachineDefine>(1U, "m"),
        make<CStateMachineInstanceDefine>(1U, 2U, "i"),
        make<CStateDefine>(1U, 3U, "on"),
        make<CTransitionDefine>(1U, 3U, 4U, 9U, "t"),
        make<CInitialState>(1U, 2U, 3U, 0U, std::uint64_t{1022}),
        make<CTransition>(1U, 2U, 9U, 0U, std::uint64_t{1024}, CData(std::uint8_t{7})),
        make<CVariableDefine>(placeAt(1025), 8U, 1U, "v"),
        make<CVariableWrite>(placeAt(1026), 8U, CData(std::uint32_t{70000})),
        make<CSignalDefine>(CBusContext(1027, 0, 1), 3U, CSignalMask("0110"), "s"),
        make<CSignal>(CBusContext(1028, 0, 1), CSignalMask("01100000"), CSignalMask("11110000")),
        make<CSignal>(CBusContext(1029, 0, 1), CSignalMask("00100000"), CSignalMask("10110000")),
        make<CBusAddrData>(CBusContext(1030, 0, 1), CBusDataSignals(1), 0x1234U, CData(std::uint8_t{9})),
        make<CExecInsn>(1031U, 0U, 7U, 0x4000U),
        make<CProcessDefine>(placeAt(1032), 2U, "p"),
        make<CProcessEnter>(placeAt(1032), 2U),
        make<CFunctionEnter>(placeAt(1033), 3U),
        make<CFunctionEnter>(placeAt(1034), 2U),
        make<CFunctionLeave>(placeAt(1036), 3U),
        make<CProcessLeave>(placeAt(1037), 2U),
        make<CFunctionLeave>(placeAt(1038), 3U),
        std::make_shared<CCounterValueDim1>(cell),
        make<CFunctionEnter>(placeAt(2030, 1, 0), 1U),
        make<CTraceBroken>(placeAt(2040, 1, 0)),
        make<CFunctionEnter>(placeAt(2050, 1, ~0U), 1U),
    };
}

/// The fields of a Perfetto message, a line each: numbers, texts, and messages inside, of which `inside` tells; paths
/// of field numbers.
std::string decoded(std::string_view bytes, const std::string& path = "") {
    static const std::set<std::string> inside{"1",    "1.11",   "1.11.4", "1.12",  "1.12.2",
                                              "1.60", "1.60.3", "1.60.4", "1.60.8"};
    const auto varint = [&bytes] {
        std::uint64_t value = 0;
        for (unsigned shift = 0;; shift += 7) {
            const auto byte = static_cast<unsigned char>(bytes.at(0));
            bytes.remove_prefix(1);
            value |= std::uint64_t{byte & 0x7FU} << shift;
            if (byte < 0x80)
                return value;
        }
    };
    std::string text;
    while (!bytes.empty()) {
        const std::uint64_t key = varint();
        const std::string at = path + (path.empty() ? "" : ".") + std::to_string(key >> 3);
        text += (path.empty() ? "" : " ") + std::to_string(key >> 3) + ":";
        if ((key & 7) == 0) {
            text += std::to_string(varint());
        } else if ((key & 7) == 1) {
            text += hexNumber(bytes.substr(0, 8));
            bytes.remove_prefix(8);
        } else {
            EXPECT_EQ(key & 7, 2U);
            const auto size = static_cast<std::size_t>(varint());
            const std::string_view its = bytes.substr(0, size);
            EXPECT_EQ(its.size(), size);
            text += inside.contains(at) ? "{" + decoded(its, at) + " }" : "'" + std::string(its) + "'";
            bytes.remove_prefix(its.size());
        }
        text += path.empty() ? "\n" : "";
    }
    return text;
}

TEST(TrackFormats, ShowAllThereIs) {
    expectGolden("scene.trace.json", written("chrome", scene()));
    expectGolden("scene.speedscope.json", written("speedscope", scene()));
    expectGolden("scene.csv", written("csv", scene()));
    expectGolden("scene.jsonl", written("json", scene()));
    expectGolden("scene.folded", written("folded", scene()));
    std::string perfetto = written("perfetto", scene());
    const std::size_t lost = perfetto.find("lost: ");
    expectGolden("scene.perfetto.txt", decoded(std::string_view(perfetto).substr(0, lost)) + perfetto.substr(lost));
}

TEST(TrackFormats, WriteEveryFieldAsCtf) {
    std::ostringstream out;
    CCtfWriter writer(out);
    for (const auto& packet : scene())
        EXPECT_TRUE(writer.put(packet.get()));
    writer.flush();
    std::string text = writer.metadata();
    const std::string stream = out.str();
    for (std::size_t i = 0; i < stream.size(); i += 32) {
        for (const char c : stream.substr(i, 32))
            putHex<2>(&*text.insert(text.end(), 2, ' '), static_cast<unsigned char>(c));
        text += '\n';
    }
    expectGolden("scene.ctf.txt", text);
    EXPECT_TRUE(writer.losses().empty());
}

} // namespace
} // namespace Quorvex::test
