#pragma once

/// The three structs of the Arrow C data and C stream interfaces, by which columns are handed to other programs in the
/// same process. They are fixed for all languages and compilers; other headers may define them too, alike.
///
/// Whoever gets a struct may move it, bit by bit, marks the source as released by a null `release`, and calls `release`
/// once when it is done, from any thread. Children may be moved out before, and live on by themselves.

#include <cstdint>

#ifndef ARROW_C_DATA_INTERFACE
#define ARROW_C_DATA_INTERFACE

#define ARROW_FLAG_DICTIONARY_ORDERED 1
#define ARROW_FLAG_NULLABLE 2
#define ARROW_FLAG_MAP_KEYS_SORTED 4

extern "C" {

/// The type of a column, or of a table as a struct of columns.
struct ArrowSchema {
    const char* format;   ///< the type in a few letters
    const char* name;     ///< of the column
    const char* metadata; ///< keys and values with their lengths, or null
    std::int64_t flags;
    std::int64_t n_children;
    struct ArrowSchema** children;
    struct ArrowSchema* dictionary; ///< the type of the values that the column holds indices of, or null

    void (*release)(struct ArrowSchema*); ///< null once it is released
    void* private_data;
};

/// The values of a column, or a batch of a table.
struct ArrowArray {
    std::int64_t length;     ///< values
    std::int64_t null_count; ///< -1: not known
    std::int64_t offset;     ///< values to be stepped over in the buffers
    std::int64_t n_buffers;
    std::int64_t n_children;
    const void** buffers; ///< the first has a bit for each value that is not null; null where all are there
    struct ArrowArray** children;
    struct ArrowArray* dictionary;

    void (*release)(struct ArrowArray*); ///< null once it is released
    void* private_data;
};
}

#endif

#ifndef ARROW_C_STREAM_INTERFACE
#define ARROW_C_STREAM_INTERFACE

extern "C" {

/// The batches of a table, one after the other. Functions give 0, or a number of errno.
struct ArrowArrayStream {
    int (*get_schema)(struct ArrowArrayStream*, struct ArrowSchema* out); ///< a new one each time
    int (*get_next)(struct ArrowArrayStream*, struct ArrowArray* out);    ///< a released one at the end
    const char* (*get_last_error)(struct ArrowArrayStream*); ///< why the last call failed; valid until the next one

    void (*release)(struct ArrowArrayStream*); ///< null once it is released
    void* private_data;
};
}

#endif
