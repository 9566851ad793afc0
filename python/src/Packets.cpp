#include "Core.h"
#include "quorvex/analysis/TimeBase.h"
#include "quorvex/analysis/Trace.h"
#include "quorvex/analysis/TraceFile.h"
#include "quorvex/analysis/TraceNames.h"
#include "quorvex/factory/PacketFactory.h"
#include "quorvex/packets/KindFacts.h"
#include "quorvex/packets/PacketKinds.h"
#include "quorvex/stream/TraceFileWriter.h"

#include <array>
#include <bit>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace quorvex_python {

using namespace Quorvex;

namespace {

/// Fields that are called alike in all kinds, and what Python calls them.
struct Common {
    std::string_view field;
    const char* name;
};
constexpr Common kCommon[] = {
    {"Tick", "tick"}, {"Timestamp", "tick"}, {"HWCtx", "core"}, {"SWCtx", "thread"}, {"IP", "address"}};

constexpr std::string_view kRepeated = "Idx"; ///< the field of which a packet may have several

nb::object valueOf(const NumberField& field) {
    if (field.meaning == FieldMeaning::Bytes || field.bytes.size() > sizeof field.value)
        return nb::bytes(field.bytes.data(), field.bytes.size());
    if (!field.isKnown)
        return nb::none();
    if (field.isSigned)
        return nb::int_(static_cast<std::int64_t>(field.value));
    return nb::int_(field.value);
}

/// A packet as Python has it. Names and times are those when it was read: it can be kept.
class Packet {
public:
    Packet() = default;
    explicit Packet(PacketPointer made) : m_made(std::move(made)) {}
    explicit Packet(TracePacket&& read)
        : m_name(read.name()), m_nanoseconds(read.nanoseconds()), m_read(std::move(read)) {}

    const CPacket& get() const { return m_made ? *m_made : m_read.packet(); }
    const char* kind() const { return CTCodeInfo::TCodeToName(get().TraceCode()); }
    nb::object name() const { return textOf(m_name); }
    nb::object text() const { return textOf(wholeTextOf(get())); }
    std::optional<std::uint64_t> nanoseconds() const { return m_nanoseconds; }
    std::size_t file() const { return m_read.file(); }
    std::uint64_t offset() const { return m_read.offset(); }

    std::optional<std::uint64_t> tick() const {
        const std::uint64_t tick = absoluteTickOf(get());
        return tick == kUnknown64 ? std::nullopt : std::optional(tick);
    }
    std::optional<std::uint64_t> id() const {
        const std::optional<Subject> subject = subjectOf(get());
        return subject ? std::optional(std::uint64_t{static_cast<std::uint32_t>(subject->id)}) : std::nullopt;
    }
    /// The field of that name; null where the kind has none.
    nb::object field(std::string_view name) const {
        nb::object value;
        nb::list several;
        eachNumber(get(), [&](const NumberField& field) {
            if (field.name != name)
                return;
            if (name == kRepeated)
                several.append(valueOf(field));
            else if (!value.is_valid())
                value = valueOf(field);
        });
        return nb::len(several) > 0 ? nb::object(nb::tuple(several)) : value;
    }
    nb::object fieldOrNone(std::string_view name) const {
        nb::object value = field(name);
        return value.is_valid() ? value : nb::none();
    }
    nb::dict fields() const {
        nb::dict all;
        eachNumber(get(), [&](const NumberField& field) {
            if (!all.contains(field.name))
                all[field.name] = this->field(field.name);
        });
        return all;
    }
    std::string repr() const {
        std::string shown = std::string(kind()) + "(";
        const auto add = [&shown](std::string_view name, nb::handle value) {
            shown += shown.back() == '(' ? "" : ", ";
            shown += std::string(name) + "=" + nb::repr(value).c_str();
        };
        for (auto [field, value] : fields())
            add(nb::cast<std::string>(field), value);
        if (!m_name.empty())
            add("name", name());
        if (const std::string_view said = wholeTextOf(get()); !said.empty() && said != m_name)
            add("text", text());
        return shown + ")";
    }

private:
    std::string m_name;
    std::optional<std::uint64_t> m_nanoseconds;
    TracePacket m_read;   ///< of a trace,
    PacketPointer m_made; ///< or not
};

/// Makes packets of Python's values, by the layouts of their kinds.
class Maker {
public:
    static Packet make(const std::string& kind, const nb::kwargs& values) {
        const auto code = codes().find(kind);
        if (code == codes().end())
            throw nb::value_error(("there is no kind of packet called " + kind).c_str());
        return Maker(code->second, values).packet();
    }
    /// The kinds of which packets can be made, by name.
    static const std::map<std::string, tagTCode, std::less<>>& codes() {
        static const auto all = [] {
            std::map<std::string, tagTCode, std::less<>> codes;
            for (unsigned code = 0; code < kKindFacts.size(); ++code) {
                if (factsOf(tagTCode(code)).hasClass)
                    codes.emplace(CTCodeInfo::TCodeToName(tagTCode(code)), tagTCode(code));
            }
            return codes;
        }();
        return all;
    }
    /// The layout of a kind; of calls, the one that tells who calls.
    static const Layout& layoutOf(tagTCode code, bool withCaller = false) {
        static std::map<std::pair<tagTCode, bool>, Layout> known;
        const auto [layout, isNew] = known.try_emplace({code, withCaller});
        if (isNew) {
            layout->second = Layout::of(code);
            if (withCaller) {
                std::vector<LayoutField>& fields = layout->second.fields;
                fields.back().name = "TgtFuncId";
                fields.insert(fields.end() - 1, {"SrcFuncId", {4, 4}, {1, 1}});
            }
        }
        return layout->second;
    }

private:
    Maker(tagTCode code, const nb::kwargs& values)
        : m_code(code), m_left(nb::steal<nb::dict>(PyDict_Copy(values.ptr()))) {}

    Packet packet() {
        std::string text;
        if (nb::object given = take("text"); given.is_valid() && factsOf(m_code).text != TextSort::None)
            text = nb::cast<std::string>(given);
        else if (given.is_valid())
            fail("has no text");
        const bool isCall = factsOf(m_code).entered == TextSort::Function && factsOf(m_code).step != Step::None;
        const bool withCaller = isCall && m_left.contains("SrcFuncId");
        m_bytes.assign(CPacketHeader::Len(), '\0');
        for (const LayoutField& field : layoutOf(m_code, withCaller).fields)
            put(field);
        if (nb::len(m_left) > 0)
            fail("has no field " + nb::cast<std::string>(nb::str(nb::handle(*nb::iter(m_left)))));
        const std::size_t length = m_bytes.size() - CPacketHeader::Len();
        if (length > UINT8_MAX)
            fail("cannot hold that much");
        m_bytes[0] = static_cast<char>(m_code);
        m_bytes[1] = static_cast<char>(length);
        if (!text.empty()) {
            const std::size_t begin = m_bytes.size();
            const auto size = static_cast<unsigned>(text.size());
            m_bytes.resize(begin + CCharStringSequence::StreamSize(size));
            CCharStringSequence::writeText(m_bytes.data() + begin, reinterpret_cast<const unsigned char*>(text.data()),
                                           size);
        }
        unsigned consumed = 0;
        PacketPointer made;
        try {
            made.reset(CPacketFactory::getCPacket(m_bytes.data(), static_cast<unsigned>(m_bytes.size()), consumed));
        } catch (const CQVXException& error) {
            if (isOutOfMemory(error))
                throw;
        }
        if (!made || consumed != m_bytes.size())
            fail("cannot have fields of these sizes");
        return Packet(std::move(made));
    }

    [[noreturn]] void fail(const std::string& why) const {
        throw nb::value_error((std::string(CTCodeInfo::TCodeToName(m_code)) + " " + why).c_str());
    }
    /// The value of that name, which is then done with; null where none was given.
    nb::object take(const char* name) {
        if (!m_left.contains(name))
            return {};
        nb::object value = m_left[name];
        PyDict_DelItemString(m_left.ptr(), name);
        return value;
    }
    void put(const LayoutField& field) {
        nb::object value = take(field.name.c_str());
        for (const Common& common : kCommon) {
            if (!value.is_valid() && common.field == field.name)
                value = take(common.name);
        }
        if (field.count.second > 1) {
            if (value.is_valid())
                for (nb::handle each : value)
                    putNumber(field, each);
        } else if (value.is_valid() && PyObject_CheckBuffer(value.ptr())) {
            const nb::object bytes = nb::steal(PyBytes_FromObject(value.ptr()));
            if (!bytes.is_valid())
                throw nb::python_error();
            const auto size = static_cast<std::size_t>(PyBytes_Size(bytes.ptr()));
            if (size < field.size.first || size > field.size.second)
                fail("cannot hold " + std::to_string(size) + " bytes as " + field.name);
            const std::string_view given(PyBytes_AsString(bytes.ptr()), size);
            // Data that are no number stand with their highest byte first.
            if (field.name == "Data" && size != 1 && size != 2 && size != 4 && size != 8)
                m_bytes.append(given.rbegin(), given.rend());
            else
                m_bytes += given;
        } else if (value.is_valid() && !value.is_none() && field.size.first != field.size.second) {
            fail("takes bytes as " + field.name);
        } else if (value.is_valid() && !value.is_none()) {
            putNumber(field, value);
        } else if (field.count.first > 0 && field.size.first > 0) {
            putUsual(field);
        }
    }
    /// The value of a field that is not told: that of a packet in its default state. Identifiers must be told.
    void putUsual(const LayoutField& field) {
        const PacketPointer model(CPacketFactory::getCPacket(m_code));
        std::uint64_t usual = 0;
        eachNumber(*model, [&](const NumberField& its) {
            if (its.name == field.name && its.meaning != FieldMeaning::Id)
                usual = its.isKnown ? its.value : kUnknown64;
            else if (its.name == field.name)
                fail("needs " + field.name);
        });
        putBytes(usual, field.size.first);
    }
    void putNumber(const LayoutField& field, nb::handle value) {
        const unsigned width = field.size.second;
        if (PyFloat_Check(value.ptr()) && width == sizeof(double))
            return putBytes(std::bit_cast<std::uint64_t>(nb::cast<double>(value)), width);
        const nb::object number = nb::steal(PyNumber_Index(value.ptr()));
        if (!number.is_valid())
            throw nb::python_error();
        int overflow = 0;
        const long long asSigned = PyLong_AsLongLongAndOverflow(number.ptr(), &overflow);
        auto bits = static_cast<std::uint64_t>(asSigned);
        if (overflow > 0) {
            bits = PyLong_AsUnsignedLongLong(number.ptr());
            if (PyErr_Occurred())
                throw nb::python_error();
        }
        const bool fits =
            overflow >= 0 && (width >= sizeof bits || (overflow == 0 && asSigned < std::int64_t{1} << 8 * width &&
                                                       asSigned >= -(std::int64_t{1} << (8 * width - 1))));
        if (!fits)
            fail("cannot hold " + nb::cast<std::string>(nb::str(number)) + " in the " + std::to_string(width) +
                 " bytes of " + field.name);
        putBytes(bits, width);
    }
    void putBytes(std::uint64_t bits, unsigned width) {
        for (unsigned i = 0; i < width; ++i)
            m_bytes += static_cast<char>(bits >> 8 * i);
    }

    tagTCode m_code;
    nb::dict m_left; ///< values that no field has taken
    std::string m_bytes;
};

/// The words for TraceEnd.
constexpr const char* kEnds[] = {"unread",    "empty",   "not marked", "complete",
                                 "recording", "missing", "in packet",  "in text"};

/// Goes through the packets of traces. They are read some at a time, without the interpreter's lock, which threads of
/// Python can use meanwhile.
class Reader {
public:
    Reader(const nb::list& paths, bool strict) {
        const std::vector<std::string> files = pathsOf(paths);
        const nb::gil_scoped_release release;
        m_trace.emplace(std::vector<FileName>(files.begin(), files.end()), TraceOptions{.strict = strict});
    }

    Packet next() {
        if (m_next == m_batch.size())
            read();
        if (m_next == m_batch.size()) {
            if (m_failure)
                std::rethrow_exception(std::exchange(m_failure, nullptr));
            throw nb::stop_iteration();
        }
        return std::move(m_batch[m_next++]);
    }
    std::vector<TraceReport> reports() {
        const nb::gil_scoped_release release;
        const std::lock_guard hold(m_lock);
        return m_trace->reports();
    }

private:
    static constexpr std::size_t kBatch = 256;
    void read() {
        // First the lock of the interpreter is given away, then the own one is waited for.
        const nb::gil_scoped_release release;
        const std::lock_guard hold(m_lock);
        if (m_next < m_batch.size() || m_failure)
            return; // another thread has read meanwhile
        m_batch.clear();
        m_next = 0;
        try {
            for (auto at = m_trace->begin(); at != m_trace->end(); at++) {
                m_batch.emplace_back(std::move(*at));
                if (m_batch.size() == kBatch)
                    break;
            }
        } catch (...) {
            m_failure = std::current_exception();
        }
    }

    std::optional<Trace> m_trace;
    std::mutex m_lock;
    std::vector<Packet> m_batch;
    std::size_t m_next = 0;
    std::exception_ptr m_failure; ///< to be told when the packets before it are
};

/// Writes a trace file.
class Writer {
public:
    Writer(const nb::bytes& path, bool paged, bool append) : m_path(path.c_str(), path.size()) {
        if (paged)
            open<CTraceFileWriterPaged>(append);
        else
            open<CTraceFileWriterPlain>(append);
    }

    void put(Packet& packet) {
        if (!m_writer)
            throw nb::value_error("the trace is closed");
        if (m_writer->put(&const_cast<CPacket&>(packet.get()))) // the packet's own, which nobody else has
            return;
        if (!m_writer->good())
            fail(EIO);
        throw nb::value_error((std::string(packet.kind()) + " cannot be written").c_str());
    }
    void close() {
        if (!m_writer)
            return;
        const int error = m_close(*m_writer);
        m_writer = nullptr;
        m_owned.reset();
        if (error != 0)
            fail(error);
    }

private:
    template <class Writer> void open(bool append) {
        const auto writer = std::make_shared<Writer>(m_path, append);
        if (!writer->is_open())
            fail(writer->error());
        m_writer = writer.get();
        m_owned = writer;
        m_close = [](CTraceSinkEx& open) {
            auto& file = static_cast<Writer&>(open);
            return file.close() ? 0 : file.error() != 0 ? file.error() : EIO;
        };
    }
    [[noreturn]] void fail(int error) const {
        errno = error;
        PyErr_SetFromErrnoWithFilenameObject(PyExc_OSError, pathOf(m_path).ptr());
        throw nb::python_error();
    }

    std::string m_path;
    std::shared_ptr<void> m_owned;
    CTraceSinkEx* m_writer = nullptr;        ///< null when closed
    int (*m_close)(CTraceSinkEx&) = nullptr; ///< the error number
};

} // namespace

void definePackets(nb::module_& module) {
    nb::class_<Packet>(module, "Packet",
                       "A packet of a trace. Each field of its kind is an attribute, by the name that `qvx kinds` "
                       "shows: an int, bytes\n"
                       "(lowest first), a tuple of ints where there may be several, None where it is not known.")
        .def(
            "__init__",
            [](Packet* self, const std::string& kind, const nb::kwargs& fields) {
                new (self) Packet(Maker::make(kind, fields));
            },
            nb::arg("kind"), nb::arg("fields"),
            nb::sig("def __init__(self, kind: str, /, **fields: int | float | bytes | str | "
                    "collections.abc.Sequence[int] | None) "
                    "-> None"),
            "Makes a packet of its kind and fields; `tick`, `core`, `thread` and `address` stand for the fields of "
            "its\n"
            "context, `text` is the text behind it. Times and addresses that are not told are unknown, identifiers "
            "must\n"
            "be told. Raises ValueError for what the kind cannot hold.")
        .def_prop_ro("kind", &Packet::kind, "The name of its kind: \"FunctionEnter\".")
        .def_prop_ro("tick", &Packet::tick, "Its time in ticks of the clock of its trace; None where it is not known.")
        .def_prop_ro("ns", &Packet::nanoseconds,
                     "Its time in nanoseconds since the clock's tick 0; None where that is not known, or the trace has "
                     "not told by\n"
                     "then how many ticks are a second.")
        .def_prop_ro(
            "seconds",
            [](const Packet& self) {
                return self.nanoseconds() ? std::optional(static_cast<double>(*self.nanoseconds()) / 1e9)
                                          : std::nullopt;
            },
            "The same in seconds, rounded to what a float holds.")
        .def_prop_ro(
            "core", [](const Packet& self) { return self.fieldOrNone("HWCtx"); },
            nb::sig("def core(self) -> int | None"), "The core on which it happened; None where that is not known.")
        .def_prop_ro(
            "thread", [](const Packet& self) { return self.fieldOrNone("SWCtx"); },
            nb::sig("def thread(self) -> int | None"), "The thread in which it happened; None where that is not known.")
        .def_prop_ro(
            "address", [](const Packet& self) { return self.fieldOrNone("IP"); },
            nb::sig("def address(self) -> int | None"), "The address of the instruction; None where that is not known.")
        .def_prop_ro("id", &Packet::id, "The number of what it is about; None where it is about nothing with a number.")
        .def_prop_ro("name", &Packet::name, nb::sig("def name(self) -> str"),
                     "The name that its trace had given by then to what it is about, or gives by this; empty where "
                     "there is none.")
        .def_prop_ro("text", &Packet::text, nb::sig("def text(self) -> str"),
                     "The text behind it: that of a message, the name of a definition; empty where there is none.")
        .def_prop_ro("file", &Packet::file, "Which of the files it comes from: the first is 0.")
        .def_prop_ro("offset", &Packet::offset, "Where in its file it begins, in bytes.")
        .def_prop_ro("fields", &Packet::fields,
                     nb::sig("def fields(self) -> dict[str, int | bytes | tuple[int, ...] | None]"),
                     "All its fields by name.")
        .def(
            "__getattr__",
            [](const Packet& self, const std::string& name) {
                nb::object value = self.field(name);
                if (!value.is_valid())
                    throw nb::attribute_error((std::string(self.kind()) + " has no field " + name).c_str());
                return value;
            },
            nb::sig("def __getattr__(self, name: str, /) -> typing.Any"))
        .def("__repr__", &Packet::repr);

    nb::class_<Reader>(module, "Reader", "Goes through the packets of traces, in the order of ticks.")
        .def(nb::init<const nb::list&, bool>(), nb::arg("paths"), nb::arg("strict"),
             nb::sig("def __init__(self, paths: list[bytes], strict: bool) -> None"))
        .def(
            "__iter__", [](nb::handle self) { return nb::borrow(self); }, nb::sig("def __iter__(self) -> Reader"))
        .def("__next__", &Reader::next)
        .def("reports", &Reader::reports, "How reading went so far, file by file.");

    nb::class_<TraceReport>(module, "Report", "How reading one file went.")
        .def_prop_ro(
            "file", [](const TraceReport& self) { return pathOf(self.file); }, nb::sig("def file(self) -> str"),
            "The file as it was named.")
        .def_prop_ro(
            "end", [](const TraceReport& self) { return kEnds[std::size_t(self.end)]; },
            "How it ends: \"complete\", \"not marked\", \"recording\", \"missing\", \"in packet\", \"in text\",\n"
            "\"empty\"; \"unread\" where there are packets left.")
        .def_prop_ro(
            "damaged_places", [](const TraceReport& self) { return self.damage.places; },
            "How many places were stepped over; of a table, rows.")
        .def_prop_ro(
            "damaged_bytes", [](const TraceReport& self) { return self.damage.bytes; },
            "Bytes in all of them; 0 for a table.")
        .def_prop_ro(
            "first_damage",
            [](const TraceReport& self) {
                return self.damage.places > 0 ? std::optional(self.damage.first) : std::nullopt;
            },
            "Offset of the first of them.")
        .def_ro("missing_bytes", &TraceReport::missing,
                "Bytes that are missing at the end; 0 where the trace does not tell.")
        .def_ro("wrong_ticks", &TraceReport::wrongTicks, "Packets whose tick could not be and is taken as unknown.")
        .def_prop_ro("is_lossy", &TraceReport::isLossy, "Whether something is missing or damaged.");

    nb::class_<Writer>(module, "Writer")
        .def(nb::init<const nb::bytes&, bool, bool>(), nb::arg("path"), nb::arg("paged"), nb::arg("append"))
        .def("put", &Writer::put, nb::arg("packet"))
        .def("close", &Writer::close);

    module.def(
        "kinds",
        [] {
            nb::dict all;
            for (const auto& [name, code] : Maker::codes()) {
                nb::list fields;
                for (const LayoutField& field : Maker::layoutOf(code).fields)
                    fields.append(field.name);
                all[name.c_str()] = nb::tuple(fields);
            }
            return all;
        },
        nb::sig("def kinds() -> dict[str, tuple[str, ...]]"), "The kinds of packet, with the names of their fields.");
}

} // namespace quorvex_python
