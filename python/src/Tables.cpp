#include "Core.h"
#include "quorvex/analysis/ArrowCData.h"
#include "quorvex/analysis/TableFacts.h"
#include "quorvex/analysis/TraceFile.h"
#include "quorvex/analysis/TraceNames.h"
#include "quorvex/analysis/TracePages.h"
#include "quorvex/analysis/TraceSpan.h"
#include "quorvex/analysis/TraceTables.h"
#include "quorvex/packets/KindFacts.h"
#include "quorvex/stream/FileKind.h"
#include "quorvex/stream/TraceCursor.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace quorvex_python {

using namespace Quorvex;

namespace {

/// A struct of the Arrow C interfaces in a capsule, as other packages take it. Who takes it marks it as released.
template <class Struct> class Capsule {
public:
    explicit Capsule(const char* name) : m_name(name), m_struct(new Struct{}) {}

    Struct& get() { return *m_struct; }
    nb::object object() {
        nb::object made = nb::steal(PyCapsule_New(m_struct.get(), m_name, [](PyObject* capsule) {
            const char* const name = PyCapsule_GetName(capsule);
            Release()(static_cast<Struct*>(PyCapsule_GetPointer(capsule, name)));
        }));
        if (!made.is_valid())
            throw nb::python_error();
        m_struct.release();
        return made;
    }

private:
    struct Release {
        void operator()(Struct* its) const {
            if (its->release)
                its->release(its);
            delete its;
        }
    };

    const char* m_name;
    std::unique_ptr<Struct, Release> m_struct;
};

TraceTable tableNamed(const std::string& name) {
    const std::optional<TraceTable> table = tableOf(name);
    if (!table)
        throw nb::value_error(("there is no table called " + name).c_str());
    return *table;
}

/// The schema of a table, for which no file is looked into.
void tellSchema(TraceTable table, const std::vector<std::string>& columns, ArrowSchema& schema) {
    Capsule<ArrowArrayStream> stream("arrow_array_stream");
    TableOptions options;
    options.columns = columns;
    TraceTables(std::vector<TableInput>()).open(table, options, stream.get());
    if (stream.get().get_schema(&stream.get(), &schema) != 0)
        throw std::bad_alloc();
}

/// The tables of traces in files, or of parts of them in memory.
class Tables {
public:
    Tables(const nb::list& paths, const nb::list& definitions) : m_tables(inputsOf(paths), textsOf(definitions)) {}

    nb::object stream(const std::string& table, const std::vector<std::string>& columns, std::uint64_t firstPage,
                      std::uint64_t pages, std::uint64_t from, std::uint64_t to, std::uint64_t rows,
                      unsigned threads) const {
        TableOptions options;
        options.columns = columns;
        options.firstPage = firstPage;
        options.pages = pages;
        options.window = {from, to};
        options.rows = rows;
        options.threads = threads;
        Capsule<ArrowArrayStream> capsule("arrow_array_stream");
        open(tableNamed(table), options, capsule.get());
        return capsule.object();
    }
    nb::bytes definitions(std::size_t file, unsigned threads) const {
        std::string bytes;
        {
            const nb::gil_scoped_release release;
            bytes = m_tables.definitions(file, threads);
        }
        return nb::bytes(bytes.data(), bytes.size());
    }

private:
    static std::vector<std::string> textsOf(const nb::list& texts) { return pathsOf(texts); }
    /// Of each file its name, or that, a part of its bytes, and where that begins.
    static std::vector<TableInput> inputsOf(const nb::list& files) {
        std::vector<TableInput> inputs;
        for (nb::handle file : files) {
            if (!nb::isinstance<nb::tuple>(file)) {
                const auto path = nb::cast<nb::bytes>(file);
                inputs.emplace_back(std::string(path.c_str(), path.size()));
                continue;
            }
            const auto part = nb::cast<nb::tuple>(file);
            const auto path = nb::cast<nb::bytes>(part[0]);
            const auto bytes = nb::cast<nb::bytes>(part[1]);
            inputs.emplace_back(std::string(path.c_str(), path.size()),
                                std::make_shared<const std::string>(bytes.c_str(), bytes.size()),
                                nb::cast<std::uint64_t>(part[2]));
        }
        return inputs;
    }
    void open(TraceTable table, const TableOptions& options, ArrowArrayStream& stream) const {
        try {
            const nb::gil_scoped_release release;
            m_tables.open(table, options, stream);
        } catch (const std::invalid_argument& error) {
            throw nb::value_error(error.what());
        }
    }

    TraceTables m_tables;
};

} // namespace

void defineTables(nb::module_& module) {
    nb::class_<Tables>(module, "Tables", "Tables of traces in files, or of parts of them in memory.")
        .def(nb::init<const nb::list&, const nb::list&>(), nb::arg("files"), nb::arg("definitions"),
             nb::sig("def __init__(self, files: collections.abc.Sequence[bytes | tuple[bytes, bytes, int]], "
                     "definitions: list[bytes]) "
                     "-> None"))
        .def(
            "stream", &Tables::stream, nb::arg("table"), nb::arg("columns"), nb::arg("first_page"), nb::arg("pages"),
            nb::arg("first_tick"), nb::arg("end_tick"), nb::arg("rows"), nb::arg("threads"),
            nb::sig("def stream(self, table: str, columns: collections.abc.Sequence[str], first_page: int, pages: int, "
                    "first_tick: int, end_tick: int, rows: int, threads: int) -> object"),
            "Begins a table: an Arrow stream of its batches.")
        .def("definitions", &Tables::definitions, nb::arg("file"), nb::arg("threads"),
             "What a file defines: bytes that spare others the walk through it.");
    module.def(
        "clock_of",
        [](const nb::bytes& definitions) {
            std::istringstream bytes(std::string(definitions.c_str(), definitions.size()));
            TraceFile trace("definitions", &bytes);
            const std::uint64_t frequency = TraceSpan::beginningOf(trace, UINT64_MAX).frequency;
            return frequency == 0 ? std::nullopt : std::optional(frequency);
        },
        nb::arg("definitions"), "Ticks in a second, as what a file defines tells; None where it does not.");
    module.def(
        "thread_names",
        [](const nb::bytes& definitions) {
            CTraceNames names;
            CTraceCursor cursor(std::string_view(definitions.c_str(), definitions.size()));
            while (cursor.next())
                names.note(*PacketPointer(cursor.packet()));
            nb::dict all;
            for (const std::uint32_t thread : names.threads()) {
                if (const std::string& name = names.threadName(thread); !name.empty())
                    all[nb::int_(thread)] = textOf(name);
            }
            return all;
        },
        nb::arg("definitions"), nb::sig("def thread_names(definitions: bytes) -> dict[int, str]"),
        "What threads are called, by their numbers, as what a file defines tells.");
    module.def(
        "first_tick",
        [](const nb::bytes& content) -> std::optional<std::uint64_t> {
            CTraceCursor cursor(std::string_view(content.c_str(), content.size()));
            while (cursor.next()) {
                if (factsOf(cursor.TraceCode()).role == Role::Happening && cursor.tick() != kUnknown64)
                    return cursor.tick();
            }
            return std::nullopt;
        },
        nb::arg("content"), "The tick of the first packet in these bytes that tells what has happened; None for none.");
    module.def(
        "is_paged", [](const nb::bytes& path) { return TracePages(std::string(path.c_str(), path.size())).arePages(); },
        nb::arg("path"), "Whether a file is of pages, any of which can be read without those before.");
    module.def(
        "looks_like_trace",
        [](const nb::bytes& content) {
            return kindOfFile(std::string_view(content.c_str(), content.size())) == FileKind::Trace;
        },
        nb::arg("content"), "Whether these bytes, from the beginning of a page, are packets as far as can be told.");
    module.def(
        "schema",
        [](const std::string& table, const std::vector<std::string>& columns) {
            Capsule<ArrowSchema> capsule("arrow_schema");
            tellSchema(tableNamed(table), columns, capsule.get());
            return capsule.object();
        },
        nb::arg("table"), nb::arg("columns"),
        nb::sig("def schema(table: str, columns: collections.abc.Sequence[str]) -> object"),
        "Tells the types of columns of a table: an Arrow schema.");
    module.def(
        "tables",
        [] {
            nb::dict all;
            for (const TableFacts& table : tableFacts()) {
                nb::list columns;
                for (const TableColumn& column : table.columns)
                    columns.append(nb::make_tuple(column.name, column.format, column.isName, column.isNullable,
                                                  column.unit, column.meaning));
                all[table.name] = nb::make_tuple(table.meaning, nb::tuple(columns));
            }
            return all;
        },
        nb::sig("def tables() -> dict[str, tuple[str, tuple[tuple[str, str, bool, bool, str, str], ...]]]"),
        "The tables by name: what their rows are, and of each column name, Arrow format, whether it is a dictionary "
        "of\n"
        "that, whether there can be nulls, unit and meaning.");
}

} // namespace quorvex_python
