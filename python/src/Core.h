#pragma once

/// What the parts of the native half of the Python package share.

#include <cstddef>
#include <nanobind/nanobind.h>
#include <nanobind/stl/optional.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>
#include <string>
#include <vector>

namespace quorvex_python {

namespace nb = nanobind;

/// Each makes the classes and functions of its source in the module.
void definePackets(nb::module_& module);
void defineRecorder(nb::module_& module);
void defineTables(nb::module_& module);

/// A text as Python has it; bytes that are no UTF-8 become U+FFFD.
inline nb::object textOf(std::string_view text) {
    return nb::steal(PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "replace"));
}

/// The name of a file as Python has it, whatever its bytes.
inline nb::object pathOf(const std::string& path) {
    return nb::steal(PyUnicode_DecodeFSDefaultAndSize(path.data(), static_cast<Py_ssize_t>(path.size())));
}

/// The names of files out of what Python gives: bytes.
inline std::vector<std::string> pathsOf(const nb::list& paths) {
    std::vector<std::string> all;
    for (nb::handle path : paths) {
        const auto bytes = nb::cast<nb::bytes>(path);
        all.emplace_back(bytes.c_str(), bytes.size());
    }
    return all;
}

} // namespace quorvex_python
