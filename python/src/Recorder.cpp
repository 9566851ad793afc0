#include "Core.h"
#include "quorvex/instrument/InstrumentingStream.h"
#include "quorvex/instrument/Record.h"

#include <algorithm>
#include <string>
#include <unordered_map>
#include <vector>

namespace quorvex_python {

using Quorvex::CQVXInstrumentingStream;

namespace {

/// What is recorded of the functions of Python, in all threads. Guarded by the interpreter's lock. It is never
/// destroyed: threads may run until the very end of the process.
class Recorder {
public:
    static Recorder& instance() {
        static Recorder& recorder = *new Recorder;
        return recorder;
    }

    /// Begins to record. `nameOf` tells the name of a code object, or None where it is not recorded; it is asked once,
    /// unless several threads come to it at the same time.
    /// `threadName` tells that of the calling thread, or None, once a thread.
    void start(nb::object nameOf, nb::object threadName) {
        // What another one has answered does not hold any more; the numbers do, and so do the names.
        for (auto& [code, function] : m_functions)
            function.isAsked = false;
        m_nameOf = std::move(nameOf);
        m_threadName = std::move(threadName);
        ++m_run;
    }
    /// Ends the recording: of this thread, what is open is left, and what it has recorded goes to its file.
    void stop() {
        // Where it has recorded nothing, no file is made.
        if (Thread& thread = thisThread(); thread.stream && thread.stream == CQVXInstrumentingStream::get_Instance()) {
            leave(thread);
            thread.stream->flush();
        }
        ++m_run;
        m_nameOf.reset();
        m_threadName.reset();
    }

    /// The thread begins to run that code, or goes on with it. False where it is not recorded.
    bool enter(PyObject* code) {
        const Function* const function = functionOf(code);
        if (!function || function->id == 0)
            return false;
        CQVXInstrumentingStream* const stream = CQVXInstrumentingStream::get_Instance();
        if (!stream)
            return true; // the program is ending
        Thread& thread = ofThread(*stream);
        if (thread.announced.size() <= function->id)
            thread.announced.resize(function->id + 1U);
        if (!thread.announced[function->id]) {
            stream->FunctionDefine(function->name.c_str(), function->id);
            thread.announced[function->id] = true;
        }
        stream->FunctionEnter(function->id);
        thread.open.push_back(function->id);
        return true;
    }
    /// The thread leaves that code, for now or for good. Nothing happens where it was entered before the recording.
    /// False where it is not recorded.
    bool leave(PyObject* code) {
        const Function* const function = functionOf(code);
        if (!function || function->id == 0)
            return false;
        CQVXInstrumentingStream* const stream = CQVXInstrumentingStream::get_Instance();
        if (!stream)
            return true;
        Thread& thread = ofThread(*stream);
        if (!thread.open.empty()) {
            stream->FunctionLeave(thread.open.back());
            thread.open.pop_back();
        }
        return true;
    }

    /// The files that threads have recorded to since the process began.
    const std::vector<std::string>& files() const { return m_files; }

private:
    struct Function {
        unsigned id = 0; ///< 0: not recorded
        bool isAsked = false;
        std::string name;
    };
    /// What is known of a thread; of its own stream, and of one recording.
    struct Thread {
        CQVXInstrumentingStream* stream = nullptr;
        unsigned run = 0;
        std::vector<unsigned> open;  ///< functions that are entered
        std::vector<bool> announced; ///< by their numbers
    };

    const Function* functionOf(PyObject* code) {
        const auto [found, isNew] = m_functions.try_emplace(code);
        if (isNew)
            Py_INCREF(code); // kept, so that its address stays its own
        Function& function = found->second;
        if (!function.isAsked) [[unlikely]] {
            if (!m_nameOf.is_valid())
                return nullptr;
            // Other threads may run until there is an answer; they ask, too.
            const nb::object nameOf = m_nameOf, name = nameOf(nb::handle(code));
            function.isAsked = true;
            if (name.is_none())
                function.id = 0;
            else if (function.name.empty())
                function.name = nb::cast<std::string>(nb::str(name));
            if (!name.is_none() && function.id == 0)
                function.id = ++m_lastId;
        }
        return &function;
    }

    static Thread& thisThread() {
        static thread_local Thread thread;
        return thread;
    }
    Thread& ofThread(CQVXInstrumentingStream& stream) {
        Thread& thread = thisThread();
        if (thread.stream != &stream) [[unlikely]] {
            thread = Thread();
            thread.stream = &stream;
            if (std::find(m_files.begin(), m_files.end(), stream.path()) == m_files.end())
                m_files.push_back(stream.path());
        }
        if (thread.run != m_run) [[unlikely]] {
            leave(thread); // what has ended while nothing was recorded
            thread.run = m_run;
            if (const nb::object name = m_threadName.is_valid() ? m_threadName() : nb::none(); !name.is_none())
                quorvex_name_thread(nb::cast<std::string>(name).c_str());
        }
        return thread;
    }
    static void leave(Thread& thread) {
        for (; !thread.open.empty(); thread.open.pop_back())
            thread.stream->FunctionLeave(thread.open.back());
    }

    std::unordered_map<PyObject*, Function> m_functions;
    std::vector<std::string> m_files;
    nb::object m_nameOf;     ///< null while nothing is recorded
    nb::object m_threadName; ///< likewise
    unsigned m_run = 0;      ///< of the recording, and of the time behind it
    unsigned m_lastId = 0;
};

PyObject* g_disable = nullptr; ///< what tells sys.monitoring that a place need not be told any more

/// What the interpreter calls; an exception of `step` is Python's.
template <class Step> PyObject* called(Step&& step, bool mayDisable) {
    try {
        PyObject* const answer = !step() && mayDisable && g_disable ? g_disable : Py_None;
        Py_INCREF(answer);
        return answer;
    } catch (nb::python_error& error) {
        error.restore();
    } catch (const std::exception& error) {
        PyErr_SetString(PyExc_RuntimeError, error.what());
    }
    return nullptr;
}

// For sys.monitoring: the code object comes first. Not all events can be switched off at a place.
PyObject* onEnter(PyObject*, PyObject* const* values, Py_ssize_t) {
    return called([&] { return Recorder::instance().enter(values[0]); }, true);
}
PyObject* onThrow(PyObject*, PyObject* const* values, Py_ssize_t) {
    return called([&] { return Recorder::instance().enter(values[0]); }, false);
}
PyObject* onLeave(PyObject*, PyObject* const* values, Py_ssize_t) {
    return called([&] { return Recorder::instance().leave(values[0]); }, true);
}
PyObject* onUnwind(PyObject*, PyObject* const* values, Py_ssize_t) {
    return called([&] { return Recorder::instance().leave(values[0]); }, false);
}

// For sys.setprofile: frame, event, value. Events are "call", "return", and those of functions in C.
PyObject* onProfile(PyObject*, PyObject* const* values, Py_ssize_t) {
    return called(
        [&] {
            const Py_ssize_t length = PyUnicode_GetLength(values[1]);
            const bool isCall = length == 4;
            if (!isCall && (length != 6 || PyUnicode_ReadChar(values[1], 0) != 'r'))
                return true;
            const nb::object code =
                nb::steal(reinterpret_cast<PyObject*>(PyFrame_GetCode(reinterpret_cast<PyFrameObject*>(values[0]))));
            return isCall ? Recorder::instance().enter(code.ptr()) : Recorder::instance().leave(code.ptr());
        },
        false);
}

template <PyObject* (*Function)(PyObject*, PyObject* const*, Py_ssize_t)>
void addCallback(nb::dict& callbacks, const char* name) {
    static PyMethodDef definition{name, reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(Function)),
                                  METH_FASTCALL, nullptr};
    callbacks[name] = nb::steal(PyCFunction_NewEx(&definition, nullptr, nullptr));
}

} // namespace

void defineRecorder(nb::module_& module) {
    module.def(
        "callbacks",
        [] {
            nb::dict all;
            addCallback<onEnter>(all, "enter");
            addCallback<onThrow>(all, "throw");
            addCallback<onLeave>(all, "leave");
            addCallback<onUnwind>(all, "unwind");
            addCallback<onProfile>(all, "profile");
            return all;
        },
        nb::sig("def callbacks() -> dict[str, collections.abc.Callable[..., typing.Any]]"),
        "What is to be called when code is entered or left, for sys.monitoring; and `profile`, for sys.setprofile.");
    module.def(
        "start_recording",
        [](nb::object nameOf, nb::object threadName, nb::object disable) {
            g_disable = disable.is_none() ? nullptr : disable.inc_ref().ptr();
            Recorder::instance().start(std::move(nameOf), std::move(threadName));
        },
        nb::arg("name_of"), nb::arg("thread_name"), nb::arg("disable").none(),
        nb::sig("def start_recording(name_of: collections.abc.Callable[[types.CodeType], str | None], "
                "thread_name: collections.abc.Callable[[], str | None], disable: object) -> None"),
        "Begins to record what the callbacks are told; name_of gives the name of a function, or None to leave it out,\n"
        "thread_name that of the calling thread, or None.");
    module.def(
        "stop_recording", [] { Recorder::instance().stop(); },
        "Ends that; what this thread has recorded goes to its file.");
    module.def(
        "recorded_files",
        [] {
            nb::list files;
            for (const std::string& file : Recorder::instance().files())
                files.append(pathOf(file));
            return files;
        },
        nb::sig("def recorded_files() -> list[str]"), "The files that threads of this process have recorded to.");
}

} // namespace quorvex_python
