#pragma once

namespace Quorvex {

/// A text for each of the two media that packets are read from.
struct MediaTexts {
    const char* stream; ///< when reading from a stream
    const char* buffer; ///< when reading from memory

    constexpr MediaTexts(const char* both) : stream(both), buffer(both) {}
    constexpr MediaTexts(const char* ofStream, const char* ofBuffer) : stream(ofStream), buffer(ofBuffer) {}
    /// These texts; the others if there are none.
    constexpr const MediaTexts& orElse(const MediaTexts& other) const { return stream ? *this : other; }
};

/// How the packets of one class are read: what its Read-In constructors throw, by the step that fails, and where it
/// differs from the others. Without a text the class does not make the check.
struct ReadRules {
    MediaTexts header = nullptr;        ///< the header's code or length is not that of the kind
    MediaTexts tooShort = nullptr;      ///< the length is below the fixed payload, if not as `header`
    MediaTexts misfit = nullptr;        ///< the payload cannot have that length, if not as `header`
    MediaTexts size = nullptr;          ///< the buffer is smaller than the fixed payload
    MediaTexts context = nullptr;       ///< the context cannot be read
    MediaTexts basis = nullptr;         ///< the payload of the class below cannot be read, if not as that class says
    MediaTexts payload = nullptr;       ///< the payload cannot be read
    MediaTexts text = nullptr;          ///< the text behind the packet cannot be read
    const char* textReadLog = nullptr;  ///< goes to the message log when the text cannot be read,
    const char* textWriteLog = nullptr; ///< and when it cannot be written
    int least = -1;                     ///< payload bytes that the plain buffer read asks for, if not the fixed ones
    bool wholeSize = false;             ///< `size` is checked for all bytes that the header announces
    bool logged = false;                ///< failures of plain reads and writes go to the message log
};

/// Rules of a class that says the same whatever fails.
constexpr ReadRules sameText(const char* text) {
    return {.size = text, .context = text, .payload = text};
}

} // namespace Quorvex
