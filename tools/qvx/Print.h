#pragma once

#include <fmt/format.h>

#include <ostream>
#include <utility>

namespace qvx {

/// Writes a text that is put together by fmt::format. (fmt::print to a stream would bring the whole of fmt into each
/// source that uses it.)
template <class... Values> void print(std::ostream& out, fmt::format_string<Values...> format, Values&&... values) {
    out << fmt::format(format, std::forward<Values>(values)...);
}

} // namespace qvx
