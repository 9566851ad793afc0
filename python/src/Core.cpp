#include "Core.h"

#include "quorvex/analysis/TraceError.h"
#include "quorvex/format/Exception.h"

#include <exception>

namespace quorvex_python {

namespace {

/// Makes quorvex.TraceError of the library's, and MemoryError of lack of memory.
void translate(const std::exception_ptr& thrown, void*) {
    try {
        std::rethrow_exception(thrown);
    } catch (const Quorvex::TraceError& error) {
        const bool isOfFile = error.what() == error.file() + ": " + error.reason();
        const nb::object type = nb::module_::import_("quorvex._errors").attr("TraceError");
        const nb::object made = type(pathOf(error.file()), textOf(error.reason()),
                                     isOfFile ? nb::none() : nb::object(nb::int_(error.offset())));
        PyErr_SetObject(type.ptr(), made.ptr());
    } catch (const Quorvex::CQVXException& error) {
        PyErr_SetString(Quorvex::isOutOfMemory(error) ? PyExc_MemoryError : PyExc_RuntimeError,
                        error.what() ? error.what() : "lack of memory");
    }
}

} // namespace

NB_MODULE(_core, module) {
    nb::register_exception_translator(translate);
    definePackets(module);
    defineRecorder(module);
    defineTables(module);
}

} // namespace quorvex_python
