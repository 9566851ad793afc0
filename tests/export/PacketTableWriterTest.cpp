#include "quorvex/export/PacketTableWriter.h"

#include "quorvex/export/PacketHTML.h"
#include "quorvex/export/PacketLaTeX.h"
#include "quorvex/export/PacketPlain.h"
#include "quorvex/factory/PacketFactory.h"
#include "tests/support/Bytes.h"
#include "tests/support/Golden.h"
#include "tests/support/RandomPackets.h"
#include "tests/support/Samples.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <set>
#include <sstream>

namespace Quorvex::test {
namespace {

template <class Table = CPacketPlain> std::string tableOfShown(bool parsable = false, bool hexTick = false) {
    std::ostringstream out;
    Table table(out, true, 0);
    table.SetParsable(parsable);
    table.SetHexTick(hexTick);
    EXPECT_TRUE(table.writePageHeader(nullptr) && table.writeTableHeader(true));
    std::uint64_t offset = 16;
    for (const Sample& sample : shownSamples()) {
        const std::unique_ptr<CPacket> packet(sample.make());
        EXPECT_TRUE(table.writeCPacket(offset, *packet)) << sample.name;
        offset += packet->StreamSize();
    }
    // Defaults show the values that mean unknown.
    for (const tagTCode code : {ExecInsn, RelExecInsn, TraceEnabled, Timestamp, FunctionEnter, Message}) {
        const std::unique_ptr<CPacket> packet(CPacketFactory::getCPacket(code));
        EXPECT_TRUE(table.writeCPacket(~0ULL, *packet));
    }
    const std::unique_ptr<CPacket> none(new CRelExecInsn(0xFF, 0xFF));
    EXPECT_TRUE(table.put(none.get()));
    EXPECT_TRUE(table.writeTableFooter() && table.writePageFooter());
    return out.str();
}

TEST(Tables, ShowEverySortOfField) {
    expectGolden("table.txt", tableOfShown());
    expectGolden("table_hextick.txt", tableOfShown(false, true));
    expectGolden("table_parsable.txt", tableOfShown(true));
    expectGolden("table.html", tableOfShown<CPacketHTML>());
    expectGolden("table.tex", tableOfShown<CPacketLaTeX>());
    EXPECT_EQ(takeLog(), "");
}

tagTCode kindOf(const Sample& sample) {
    return tagTCode(std::stoul(sample.wire.substr(0, 2), nullptr, 16));
}

TEST(GoldenFiles, ShowEveryFieldThatAKindHas) {
    const auto fields = [](const std::vector<Sample>& of) {
        std::set<std::string> names;
        for (const Sample& sample : of) {
            std::string layout(CTCodeInfo::TCodeToFormat(kindOf(sample)));
            std::ranges::replace(layout, '|', '\n');
            std::istringstream in(layout);
            for (std::string field; std::getline(in, field);)
                names.insert(field.substr(0, field.find(':')));
        }
        return names;
    };
    EXPECT_EQ(fields(shownSamples()), fields(samples()));
}

/// The rows of codes as a page: of those in golden files, and of one that has a layout and no packets yet.
template <class Table> std::string tableOfCodes(const char* title) {
    std::ostringstream out;
    Table table(out, false, 0);
    EXPECT_TRUE(table.writePageHeader(title) && table.writeTableHeader());
    for (const Sample& sample : shownSamples())
        EXPECT_TRUE(table.writeCPacket(kindOf(sample)));
    EXPECT_TRUE(table.writeCPacket(tagTCode(0x30)));
    EXPECT_TRUE(table.writeTableFooter() && table.writePageFooter());
    takeLog();
    return out.str();
}

TEST(Pages, DocumentKindsFromTheirCodes) {
    expectGolden("kinds.html", tableOfCodes<CPacketHTML>("<Kinds> & more"));
    expectGolden("kinds.tex", tableOfCodes<CPacketLaTeX>("50% of #1"));
    expectGolden("kinds.txt", tableOfCodes<CPacketPlain>(""));
    std::ostringstream out;
    CPacketHTML html(out, false, 0);
    EXPECT_FALSE(html.writeCPacket(tagTCode(0x1FE)));
    EXPECT_EQ(out.str(), "<TR><TD class=\"desc\" >254</TD>") << "the code's low byte, then nothing";
    EXPECT_FALSE(CPacketPlain(out, false, 0).writeCPacket(tagTCode(256)));
    EXPECT_EQ(CPacketTableWriter::getSizeFromTCode(tagTCode(256)), (std::pair{0U, 0U}));
    EXPECT_EQ(CPacketTableWriter::getSizeFromTCode(Timestamp), (std::pair{8U, 20U}));
}

// Whatever the texts of a trace hold, they are shown as they are unless they could mislead, and nothing of them becomes
// markup.
TEST(Texts, AreShownAsTheyAre) {
    const std::string unicode = "\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80";
    const struct {
        std::string text, plain;
        std::string html = plain, latex = plain;
    } rows[] = {
        {"main", "main"},
        {"a b ", "a b "},
        {"a<b>&\"", "a<b>&\"", "a&lt;b>&amp;\"", "a$<$b$>$\\&\""},
        {"\\x{y}_z^~", "\\x{y}_z^~", "\\x{y}_z^~", "$\\backslash$x\\{y\\}\\_z\\^{}\\~{}"},
        {"100 %$#|--", "100 %$#|--", "100 %$#|--", "100 \\%\\$\\#$|${-}{-}"},
        {unicode, unicode, "&#228;&#8364;&#128512;", "$<$U+00E4$>$$<$U+20AC$>$$<$U+01F600$>$"},
        {"0x41", "0x31347830", "0x41", "0x41"}, // only who reads the table could take it for the hexadecimal form
        {"a\tb", "0x620961"},
        {"a\n", "0x0a61"},
        {std::string("a\0", 2), "0x0061"},
        {"\xff\x41", "0x41ff"},
        {"\xc0\xaf", "0xafc0"},
        {"\xed\xa0\x80", "0x80a0ed"},
        {"\xc3(", "0x28c3"},
        {"\xc2\x85", "0x85c2"},
        {"a\x7f", "0x7f61"},
        {"\xe2\x82", "0x82e2"},
    };
    for (const auto& [text, plain, asHTML, asLaTeX] : rows) {
        std::ostringstream out, html, latex;
        CPacketPlain table(out, false, 0);
        CPacketHTML htmlTable(html, false, 0);
        CPacketLaTeX latexTable(latex, false, 0);
        const auto* characters = reinterpret_cast<const unsigned char*>(text.data());
        const auto length = static_cast<unsigned>(text.size());
        const std::string span = std::to_string(length);
        CCharString packet(characters, static_cast<unsigned char>(length));
        table.SetParsable(true);
        EXPECT_TRUE(table.put(&packet));
        EXPECT_EQ(out.str(), "\tCharString \t" + span + " \t" + plain + " \n");
        EXPECT_TRUE(htmlTable.writeCharString(length, characters) && latexTable.writeCharString(length, characters));
        EXPECT_EQ(html.str(), "<TD class=\"payload\" colspan=" + span + ">\"" + asHTML + "\"</TD>");
        EXPECT_EQ(latex.str(), "\\multicolumn{" + span + "}{|c|}{\"" + asLaTeX + "\"}&");
    }
}

TEST(PlainTable, GivesEveryPacketOfALongTextARowWithItsOffset) {
    std::ostringstream out;
    CPacketPlain table(out, true, 0);
    table.SetParsable(true);
    const std::string a(255, 'a'), b(255, 'b');
    CRelFunctionDefine define(1, 2, 3, (a + b).c_str());
    EXPECT_TRUE(table.writeCPacket(0x10, define));
    CCharStringSequence sequence("xy");
    EXPECT_TRUE(table.writeCPacket(0x300, sequence));
    EXPECT_TRUE(table.writeCPacket(sequence));
    CRelFunctionDefine cut(1, 2, 3, a.c_str());
    EXPECT_TRUE(table.writeCPacket(0x400, cut, cut.StreamSize() - 2)); // in its trace the text has no end
    EXPECT_TRUE(table.writeCPacket(0x600, cut, cut.StreamSize()));
    const std::string defines = " \tRelFunctionDefine \t6 \t1 \t0x02 \t0x00000003 \n";
    const std::string full = " \tCharString \t255 \t", none = " \tCharString \t0 \t \n",
                      xy = " \tCharString \t2 \txy \n";
    const std::string rows[] = {"0x0000000000000010" + defines,
                                "0x0000000000000018" + full + a + " \n",
                                "0x0000000000000119" + full + b + " \n",
                                "0x000000000000021a" + none,
                                "0x0000000000000300" + xy,
                                "Invalid" + xy,
                                "0x0000000000000400" + defines,
                                "0x0000000000000408" + full + a + " \n",
                                "0x0000000000000600" + defines,
                                "0x0000000000000608" + full + a + " \n",
                                "0x0000000000000709" + none};
    std::string expected;
    for (const std::string& row : rows)
        expected += "\t" + row;
    EXPECT_EQ(out.str(), expected);
}

/// The base decides; this renderer shows what it asked for.
class Spans : public CPacketTableWriter {
public:
    using CPacketTableWriter::CPacketTableWriter;
    bool writeItemOpen(unsigned span) override { return writeRaw("<" + std::to_string(span) + ":"); }
    bool writeItemClose() override { return writeRaw(">"); }
};

TEST(TableWriter, GivesEveryFieldACellOfItsWidth) {
    std::ostringstream out;
    Spans table(out, false, 0);
    const auto row = [&](auto write) {
        out.str("");
        EXPECT_TRUE(write());
        return out.str();
    };
    CVariableRead read(1, 2, 3, 4, 5, CData(std::uint64_t{0x0a0b0c}, 3));
    EXPECT_EQ(row([&] { return table.writePayload(read); }),
              "<8:1><4:2><4:3><8:0x0000000000000004><4:0x00000005><3:0x0a0b0c>");
    CTraceEnabled enabled(5, Expanded, true);
    EXPECT_EQ(row([&] { return table.writePayload(enabled); }), "<4:0><8:5><2:Expanded><2:ExceptionFrames>");
    char odd[] = "\x79\x10\0\0\0\0\1\0\0\0\0\0\0\0\x08\0\0\0";
    enabled.read(odd, 18);
    EXPECT_EQ(row([&] { return table.writePayload(enabled); }), "<4:0><8:1><4:0x00000008>") << "bits without a name";
    EXPECT_EQ(row([&] { return table.writePayload(CounterValueDimN); }),
              "<8:Tick(8)><4:HWCtx(4)><4:SWCtx(4)><8:IP(8)><4:CntrId(4)><8:Value(8)><8:Idx(8){0:27}>");
    EXPECT_EQ(row([&] { return table.writeLength(SignalDefine); }), "<1:21:139>");
    CCharString text(reinterpret_cast<const unsigned char*>("0xyz"), 4), empty;
    EXPECT_EQ(row([&] { return table.writePayload(text) && table.writePayload(empty); }), "<4:0xyz><0:>");
    EXPECT_EQ(row([&] { return table.writeCPacket(EventUndefine); }),
              "<1:event invalidation><1:EventUndefine><1:4><4:EvtId(4)>");
    const unsigned char raw[] = {0x15, 0xCD, 0x5B, 0x07, 0, 0, 0, 0, 0, 1};
    EXPECT_EQ(row([&] { return table.writeDecItem(raw, 10); }), "<10:4722366482869768670485>");
    EXPECT_EQ(row([&] { return table.writeDecItem(raw, 0) && table.writeHexItem(raw, 2); }), "<0:0><2:0xcd15>");
    EXPECT_EQ(row([&] { return table.writeHexItem(std::uint8_t{10}) && table.writeHexItem(std::uint16_t{10}); }),
              "<1:0x0a><2:0x000a>");
    EXPECT_EQ(row([&] { return table.writeDecItem(std::uint16_t{10}) && table.writeDecItem(0.5); }), "<2:10><8:0.5>");
    EXPECT_EQ(row([&] { return table.writeApostropheString("a") && table.writeIdItem(~0U, ~0U); }),
              "<1:\"a\"><4:4294967295>");
    EXPECT_EQ(row([&] { return table.writeString("abc", 1) && table.writeString(std::string("b")); }), "ab");
    EXPECT_FALSE(table.writePayload(tagTCode(256)));
    takeLog();
    table.SetParsable(true);
    EXPECT_EQ(row([&] { return table.writeIdItem(~0U, ~0U) && table.writeCtxItem(7, ~0U); }), "<4:Invalid><4:7>");
    EXPECT_EQ(row([&] { return table.writeCPacket(EventUndefine); }), "<1:EventUndefine><1:4><4:EvtId(4)>");
}

/// Other than the renderers themselves, what is derived from them may write to the stream between cells.
template <class Table> class Derived : public Table {
public:
    Derived(std::ostream& out, const std::string& mark) : Table(out, true, 0), m_out(out), m_mark(mark) {}
    bool writeItemOpen(unsigned span) override {
        m_out << m_mark;
        return Table::writeItemOpen(span);
    }

private:
    std::ostream& m_out;
    std::string m_mark;
};

template <class Table> void expectRowsAsCellByCell() {
    std::ostringstream rows, cells;
    Table table(rows, true, 0);
    Derived<Table> derived(cells, "");
    RandomPackets random(4);
    for (unsigned i = 0; i < 4000; ++i) {
        const PacketPointer packet = random.next();
        for (CPacketTableWriter* one : std::initializer_list<CPacketTableWriter*>{&table, &derived}) {
            one->SetParsable(i / 8 % 2 == 0);
            one->SetHexTick(i % 2 == 0);
            one->SetWithOffset(i % 4 < 2);
            EXPECT_TRUE(one->writeCPacket(i % 5 == 0 ? kUnknown64 : i, *packet));
        }
        EXPECT_TRUE(Table(table).put(packet.get()) && derived.put(packet.get()));
        ASSERT_EQ(rows.str(), cells.str()) << i;
        rows.str("");
        cells.str("");
    }
    takeLog();
}

TEST(Tables, AreTheSameByRowsAndByCells) {
    expectRowsAsCellByCell<CPacketPlain>();
    expectRowsAsCellByCell<CPacketHTML>();
    expectRowsAsCellByCell<CPacketLaTeX>();
}

TEST(Tables, LeaveTheStreamToDerivedRenderersBetweenCells) {
    std::ostringstream out;
    Derived<CPacketPlain> table(out, "|");
    table.SetParsable(true);
    CEventUndefine packet(7);
    EXPECT_TRUE(table.put(&packet));
    EXPECT_EQ(out.str(), "|\tInvalid |\tEventUndefine |\t4 |\t0x00000007 \n");
}

template <class Table> class TablesOnAFailedStream : public testing::Test {};
using Renderers = testing::Types<CPacketTableWriter, Spans, CPacketPlain, CPacketHTML, CPacketLaTeX>;
TYPED_TEST_SUITE(TablesOnAFailedStream, Renderers);

TYPED_TEST(TablesOnAFailedStream, AreNotWrittenUntilItsStateIsCleared) {
    std::ostringstream out;
    TypeParam table(out, true, 0);
    CCharString text(reinterpret_cast<const unsigned char*>("a"), 1);
    CPacket* packet = &text;
    CPacketTableWriter& to = table;
    out.setstate(std::ios::failbit);
    EXPECT_FALSE(to.writePageHeader(nullptr) || to.writePageFooter() || to.writeTableHeader(true) ||
                 to.writeTableFooter() || to.writeRowOpen() || to.writeRowClose());
    EXPECT_FALSE(to.writeItemOpen(1) || to.writeItemOpen(2) || to.writeItemClose() || to.writeText("a"));
    EXPECT_FALSE(to.writeDescription(text) || to.writeHeader(text) || to.writePayload(text) || to.put(&text));
    EXPECT_FALSE(to.writeHeader(CharString) || to.writePayload(CharString) || to.writeCPacket(CharString));
    EXPECT_FALSE(table.forward(packet));
    EXPECT_EQ(out.str(), "");
    table.clear();
    EXPECT_TRUE(table.put(&text));
    EXPECT_NE(out.str(), "");
}

TEST(TableWriter, StopsAtAStreamThatFailsAndKeepsWhatWasNotWritten) {
    struct Short : std::streambuf {
        std::streamsize left = 100;
        std::streamsize xsputn(const char*, std::streamsize count) override {
            const std::streamsize taken = std::min(count, left);
            left -= taken;
            return taken;
        }
        int sync() override { return 0; }
    } buffer;
    std::ostream out(&buffer);
    CPacketPlain table(out, false, 0);
    std::list<CPacket*> packets{new CSync(1, 2, 3, 4), nullptr, new CSync(1, 2, 3, 4), new CSync(1, 2, 3, 4)};
    EXPECT_FALSE(table.forward(packets));
    EXPECT_EQ(packets.size(), 2U);
    CPacket* one = packets.front();
    EXPECT_FALSE(table.forward(one));
    EXPECT_NE(one, nullptr);
    EXPECT_FALSE(table.good());
    table.clear();
    buffer.left = 10'000;
    EXPECT_TRUE(table.forward(packets));
    EXPECT_TRUE(packets.empty());
    one = nullptr;
    EXPECT_FALSE(table.forward(one) || table.put(nullptr));
    CPacket unknown(tagTCode(0x06), 0);
    EXPECT_FALSE(table.put(&unknown));
    EXPECT_EQ(takeLog(), "Unknown tcode for payload decoding: 0x6\n");
    EXPECT_EQ(table.out_size(), 0U);
}

} // namespace
} // namespace Quorvex::test
