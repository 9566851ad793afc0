#include "quorvex/format/Exception.h"

#include "tests/support/Bytes.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <type_traits>

namespace Quorvex::test {
namespace {

TEST(Exception, HasATextAndAResultForEveryKind) {
    struct Row {
        void (*raise)();
        const char* text;
        std::uint32_t result;
        bool raisedByResult;
    };
    const Row rows[] = {
        {[] { CQVXException::ThrowRuntime("some text"); }, "some text", 0x80004005, false},
        {[] { CQVXException::ThrowOutOfMemory(); }, "There is not enough memory available.", 0x8007000E, true},
        {[] { CQVXException::ThrowDiskFull(); }, "There is not enough space on the disk.", 0x80070070, true},
        {[] { CQVXException::ThrowReadConstructor("cut"); }, "cut", 0x8000FFFF, false},
        {[] { CQVXException::ThrowInvalidPointer(); }, "Invalid pointer supplied.", 0x80004003, true},
        {[] { throw CQVXException(); }, "Invalid exception identifier.", 0x80004005, false},
        // Results of other layers are carried as they are.
        {[] { CQVXException::ThrowHResult(E_OUTOFMEMORY); }, "There is not enough memory available.", 0x8007000E, true},
        {[] { CQVXException::ThrowHResult(E_NOTIMPL); }, "Invalid exception identifier.", 0x80004001, false},
        {[] { CQVXException::ThrowHResult(E_UNEXPECTED); }, "Invalid exception identifier.", 0x8000FFFF, false},
        {[] { CQVXException::ThrowHResult(S_FALSE); }, "Invalid exception identifier.", 0x80004005, false},
    };
    // As 32 bits it is equal to the literal on every system.
    static_assert(std::is_same_v<decltype(CQVXException::HResultFromException(CQVXException())), HRESULT>);
    static_assert(sizeof(HRESULT) == sizeof 0x80004005);
    for (const auto& row : rows) {
        try {
            row.raise();
            FAIL() << row.text;
        } catch (const CQVXException& exception) {
            EXPECT_STREQ(exception.what(), row.text);
            const CQVXException copy(exception);
            EXPECT_EQ(CQVXException::HResultFromException(copy), static_cast<HRESULT>(row.result)) << row.text;
        }
        EXPECT_EQ(thrownBy([&row] { CQVXException::ThrowFromHResult(static_cast<std::int32_t>(row.result)); }),
                  row.raisedByResult ? row.text : "");
    }
    EXPECT_NO_THROW(CQVXException::ThrowFromHResult(0));
}

TEST(Exception, CopiesItsText) {
    CQVXException kept;
    try {
        std::string text = "short-lived";
        CQVXException::ThrowRuntime(text.c_str());
    } catch (const CQVXException& exception) {
        kept = exception;
    }
    const CQVXException& self = kept;
    kept = self;
    const CQVXException copy(kept);
    kept = CQVXException();
    EXPECT_STREQ(copy.what(), "short-lived");
}

} // namespace
} // namespace Quorvex::test
