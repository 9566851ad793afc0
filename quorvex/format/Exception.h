#pragma once

#include "quorvex/platform/Export.h"
#include "quorvex/platform/HResult.h"

#include <exception>

namespace Quorvex {

/// Thrown where a value cannot be built. Copying never throws: a text that cannot be stored makes what() return null.
class QUORVEX_API CQVXException : public std::exception {
public:
    CQVXException() = default;
    CQVXException(const CQVXException& other) noexcept;
    CQVXException& operator=(const CQVXException& other) noexcept;
    ~CQVXException() override;

    /// The text of the runtime and read-constructor kinds, a fixed text for every other kind.
    const char* what() const noexcept override;

    /// Each throws its kind; the text is copied.
    [[noreturn]] static void ThrowRuntime(const char* text);
    [[noreturn]] static void ThrowOutOfMemory();
    [[noreturn]] static void ThrowDiskFull();
    [[noreturn]] static void ThrowReadConstructor(const char* text);
    [[noreturn]] static void ThrowInvalidPointer();
    /// Throws the kind that belongs to the result (invalid pointer, out of memory, disk full); returns for any other.
    static void ThrowFromHResult(long result);
    /// The same, and for every other failure the unknown kind, which then carries that very result.
    [[noreturn]] static void ThrowHResult(HRESULT failure);
    /// The result by which a COM host reports the exception.
    static HRESULT HResultFromException(const CQVXException& exception);

private:
    enum Kind : int {
        Runtime = 0,
        OutOfMemory = 1,
        DiskFull = 2,
        ReadConstructor = 3,
        InvalidPointer = 4,
        Unknown = 5
    };
    struct Row;

    explicit CQVXException(int code, const char* text = nullptr) noexcept;
    const Row& row() const noexcept;

    /// The kind; or the failed result, which is negative, of an exception of unknown kind.
    int m_code = Unknown;
    char* m_text = nullptr;
};

/// Whether an exception tells that memory was short: the library's own, or std::bad_alloc.
QUORVEX_API bool isOutOfMemory(const std::exception& exception);

} // namespace Quorvex
