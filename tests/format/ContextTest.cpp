#include "quorvex/format/Context.h"

#include "tests/support/Bytes.h"

#include <gtest/gtest.h>

#include <sstream>

namespace Quorvex::test {
namespace {

template <class Context> std::string wire(const Context& context) {
    char buffer[32];
    return hex({buffer, context.write(buffer, sizeof buffer)});
}

/// Both media, every shorter input, and a stream that throws, which only absolute contexts log.
template <class Context>
void checkMedia(const Context& context, const std::string& expected, const std::string& name = {}) {
    EXPECT_EQ(wire(context), expected);
    std::ostringstream out;
    EXPECT_TRUE(context.write(out));
    EXPECT_EQ(hex(out.str()), expected);

    const std::string raw = bytes(expected);
    for (unsigned size = 0; size <= raw.size(); ++size) {
        const bool whole = size == raw.size();
        const ExactBlock block(raw.substr(0, size));
        const Context before;
        Context read;
        EXPECT_EQ(read.read(block.data(), size), whole ? Context::Len() : 0U);
        EXPECT_TRUE(read == (whole ? context : before));
        Context streamed;
        std::istringstream in(raw.substr(0, size));
        EXPECT_EQ(streamed.read(in), whole);
        EXPECT_TRUE(streamed == (whole ? context : before));
    }
    EXPECT_EQ(takeLog(), "");
    std::istringstream throwing;
    throwing.exceptions(std::ios::failbit);
    Context read;
    EXPECT_FALSE(read.read(throwing));
    const std::string logged = takeLog();
    EXPECT_TRUE(name.empty() ? logged.empty() : logged.starts_with(name + "::read: Catched exception \"")) << logged;
    char buffer[32];
    EXPECT_EQ(context.write(buffer, Context::Len() - 1U), 0U);
    EXPECT_EQ(context.write(nullptr, 32U), 0U);
}

TEST(Contexts, TravelInWireOrder) {
    checkMedia(CCoreContext(0x1000, 1, 2, 0x8000),
               "00 10 00 00 00 00 00 00 01 00 00 00 02 00 00 00 00 80 00 00 00 00 00 00", "CCoreContext");
    checkMedia(CBusContext(1, 2, 3), "01 00 00 00 00 00 00 00 02 00 00 00 03 00 00 00", "CBusContext");
    // Channel, then master, though the object holds them the other way round.
    checkMedia(CSystemContext(1, 2, 3), "01 00 00 00 00 00 00 00 02 00 00 00 03 00 00 00", "CSystemContext");
    checkMedia(CRelCoreContext(1, 2), "01 02");
    checkMedia(CRelBusContext(1), "01");
    checkMedia(CRelSystemContext(1), "01");
    EXPECT_EQ(CSystemContext(1, 2, 3).Channel(), 2U);
    EXPECT_EQ(wire(CCoreContext()), "ff ff ff ff ff ff ff ff 00 00 00 00 00 00 00 00 ff ff ff ff ff ff ff ff");
}

TEST(Contexts, AreRelativeWhenOnlyTheLowestBytesDiffer) {
    const CCoreContext reference(0x1000, 1, 2, 0x8000);
    const struct {
        CCoreContext other;
        bool relative;
        const char* why;
    } rows[] = {
        {{0x10FF, 1, 2, 0x80F0}, true, "lowest bytes"},
        {{0x1100, 1, 2, 0x8000}, false, "a carry into the second byte"},
        {{0x1000, 1, 2, 0x8100}, false, "a carry in the address"},
        {{0x1000, 1, 3, 0x8000}, false, "another thread"},
        {{0x1000, 2, 2, 0x8000}, false, "another core"},
        {{0x100001000, 1, 2, 0x8000}, false, "the upper half of the tick"},
        {{0x1000, 1, 2, 0x100008000}, false, "the upper half of the address"},
    };
    for (const auto& row : rows) {
        CRelCoreContext out(9, 9);
        EXPECT_EQ(CRelCoreContext::testRelative(reference, row.other), row.relative) << row.why;
        EXPECT_EQ(CRelCoreContext::createRelative(reference, row.other, out), row.relative) << row.why;
        EXPECT_EQ(out == CRelCoreContext(9, 9), !row.relative) << row.why;
    }
    const auto relative = CRelCoreContext::createRelative(reference, rows[0].other);
    EXPECT_EQ(wire(relative), "ff f0");
    EXPECT_TRUE(CRelCoreContext::createAbsolute(reference, relative) == rows[0].other);

    EXPECT_FALSE(CRelBusContext::testRelative(CBusContext(1, 2, 3), CBusContext(1, 2, 4)));
    EXPECT_FALSE(CRelBusContext::testRelative(CBusContext(1, 2, 3), CBusContext(1, 1, 3)));
    EXPECT_FALSE(CRelSystemContext::testRelative(CSystemContext(1, 2, 3), CSystemContext(1, 3, 3)));
    EXPECT_FALSE(CRelSystemContext::testRelative(CSystemContext(1, 2, 3), CSystemContext(1, 2, 4)));
    EXPECT_TRUE(CRelBusContext::createAbsolute(CBusContext(0x1FE, 2, 3), CRelBusContext(0x0F)) ==
                CBusContext(0x1F1, 2, 3));
    EXPECT_EQ(wire(CRelSystemContext::createRelative(CSystemContext(0x1FE, 2, 3), CSystemContext(0x1F1, 2, 3))), "0f");
}

TEST(Contexts, ThrowWhereARelativeOneCannotBe) {
    EXPECT_EQ(
        thrownBy([] { CRelCoreContext::createRelative(CCoreContext(0x1FF, 0, 0, 0), CCoreContext(0x200, 0, 0, 0)); }),
        "CRelCoreContext: cannot create context from mismatching environments");
    EXPECT_EQ(thrownBy([] { CRelBusContext::createRelative(CBusContext(0x1FF, 0, 0), CBusContext(0x200, 0, 0)); }),
              "CRelBusContext: cannot create context from mismatching environments");
    EXPECT_EQ(
        thrownBy([] { CRelSystemContext::createRelative(CSystemContext(0x1FF, 0, 0), CSystemContext(0x200, 0, 0)); }),
        "CRelSystemContext: cannot create context from mismatching environments");
}

} // namespace
} // namespace Quorvex::test
