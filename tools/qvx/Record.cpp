#include "Arguments.h"
#include "Inputs.h"
#include "Merge.h"
#include "Output.h"
#include "Resolve.h"
#include "TraceInput.h"
#include "TraceOutput.h"
#include "Verbs.h"
#include "quorvex/analysis/CallStack.h"
#include "quorvex/analysis/TimeLength.h"
#include "quorvex/analysis/TraceNames.h"
#include "quorvex/format/Glob.h"
#include "quorvex/packets/PacketKinds.h"
#include "quorvex/platform/ChildProgram.h"
#include "quorvex/platform/System.h"
#include "quorvex/stream/PageFormat.h"
#include "quorvex/stream/TraceSourceBufferFile.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace qvx {

namespace {

using namespace Quorvex;
namespace fs = std::filesystem;

struct RecordOptions {
    std::vector<std::string> program;
    std::string output;
    bool force = false;
    bool mapped = false;
    bool follows = false;
    std::vector<std::string> only;
    std::vector<std::string> no;
    std::optional<std::string> depth;
    std::optional<std::string> min;
    std::optional<std::string> ring;
    std::string clock = "auto";
};

/// Leaves out calls by the name of their function, and those that take less than a time. Calls wait until they are
/// known to take it; all that comes meanwhile waits with them, so that the order stays.
class CallFilter {
public:
    CallFilter(const RecordOptions& options, std::function<void(PacketPointer)> put)
        : m_only(options.only), m_no(options.no), m_put(std::move(put)) {
        if (options.min && !(m_least = TimeLength::of(*options.min)))
            throw Misuse("--min", "'" + *options.min + "' is no time as 100us or 1.5ms");
    }

    void take(PacketPointer packet) {
        if (const auto* clock = packetAs<CTimestamp>(*packet); clock && clock->is_Frequency_valid())
            m_frequency = clock->Frequency();
        if (const auto* defined = packetAs<CFunctionDefine>(*packet)) {
            m_isHidden[defined->FuncId()] = isHidden(wholeTextOf(*packet));
        } else if (const auto* entered = packetAs<CFunctionEnter>(*packet)) {
            if (m_isHidden[entered->TgtFuncId()])
                return;
            m_tick = entered->Tick();
            const std::uint64_t number = m_done + m_waiting.size();
            callsOf(*entered).enter([&] { return Call{entered->TgtFuncId(), number, m_tick}; });
            m_waiting.push_back({std::move(packet), m_tick, !m_least});
            return handOut();
        } else if (const auto* left = packetAs<CFunctionLeave>(*packet)) {
            if (m_isHidden[left->TgtFuncId()] || !leave(*left))
                return;
        }
        m_waiting.push_back({std::move(packet), m_tick, true});
        handOut();
    }
    /// What is open at the end stays.
    void finish() {
        for (Waiting& waiting : m_waiting)
            waiting.isDecided = true;
        handOut();
    }

private:
    struct Call {
        std::uint32_t id;
        std::uint64_t number; ///< of its packet
        std::uint64_t from;
    };
    struct Waiting {
        PacketPointer packet; ///< null: it is left out
        std::uint64_t tick;
        bool isDecided;
    };

    bool isHidden(std::string_view name) const {
        const auto isLike = [name](const std::string& pattern) { return matches(pattern, name); };
        return (!m_only.empty() && std::none_of(m_only.begin(), m_only.end(), isLike)) ||
               std::any_of(m_no.begin(), m_no.end(), isLike);
    }

    CallStack<Call>& callsOf(const CCoreContext& context) {
        constexpr std::size_t kMost = 0x10000;
        return m_threads.try_emplace(context.SWCtx(), kMost).first->second;
    }

    /// Whether the end of a call stays.
    bool leave(const CFunctionLeave& packet) {
        m_tick = packet.Tick();
        CallStack<Call>& calls = callsOf(packet);
        const std::uint32_t id = packet.TgtFuncId();
        const auto left = calls.leave([id](const Call& call) { return call.id == id; });
        bool stays = !m_least || left == 0U; // of those that are not kept any more, all stay
        for (std::size_t i = left.value_or(0); i > 0; --i) {
            const Call call = calls.back();
            calls.pop();
            stays = !m_least || m_tick - call.from >= m_least->ticks(m_frequency);
            if (call.number >= m_done) {
                Waiting& waiting = m_waiting[static_cast<std::size_t>(call.number - m_done)];
                waiting.isDecided = true;
                if (!stays)
                    waiting.packet.reset();
            }
        }
        return stays;
    }

    void handOut() {
        while (!m_waiting.empty()) {
            Waiting& first = m_waiting.front();
            if (!first.isDecided && m_tick - first.tick < m_least->ticks(m_frequency))
                return;
            if (first.packet)
                m_put(std::move(first.packet));
            m_waiting.pop_front();
            ++m_done;
        }
    }

    const std::vector<std::string>& m_only;
    const std::vector<std::string>& m_no;
    std::optional<TimeLength> m_least;
    std::function<void(PacketPointer)> m_put;
    std::uint64_t m_frequency = 1'000'000'000;
    std::unordered_map<std::uint32_t, bool> m_isHidden; ///< functions
    std::unordered_map<std::uint32_t, CallStack<Call>> m_threads;
    std::deque<Waiting> m_waiting;
    std::uint64_t m_done = 0; ///< packets that have been handed out or left out
    std::uint64_t m_tick = 0;
};

/// The directory of a recording, which is gone when all went well.
class Recording {
public:
    explicit Recording(const std::string& output) {
        std::random_device random;
        m_run = fmt::format("{:08x}{:08x}", random(), random());
        m_path = fs::absolute(output + ".recording-" + m_run).string();
        std::error_code error;
        if (!fs::create_directory(m_path, error))
            throw Failure(m_path, error.message());
        if (m_path.size() > platform::kEnvironmentLimit) {
            remove();
            throw Failure(m_path, fmt::format("longer than {} characters", platform::kEnvironmentLimit));
        }
    }
    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;
    ~Recording() {
        std::error_code ignored;
        if (m_isKept && !fs::is_empty(m_path, ignored))
            tell("what was recorded is left in " + m_path);
        else
            remove();
    }

    const std::string& path() const { return m_path; }
    /// 16 digits that tell this run.
    const std::string& run() const { return m_run; }
    /// Nothing has failed.
    void done() { m_isKept = false; }

private:
    void remove() {
        std::error_code ignored;
        fs::remove_all(m_path, ignored);
    }

    std::string m_path;
    std::string m_run;
    bool m_isKept = true;
};

/// The library of the hooks, beside this program or where it is installed.
std::string library() {
    const std::string here = platform::directoryOfProgram();
    for (const char* directory : {"", QVX_LIBRARY_DIRECTORY "/"}) {
        const fs::path path = fs::path(here + directory + "libquorvex_functions.so").lexically_normal();
        std::error_code missing;
        if (!fs::exists(path, missing))
            continue;
        // The loader takes both for the end of a name.
        if (path.string().find_first_of(": ") != std::string::npos)
            throw Failure(path.string(), "cannot be loaded into a program while its path has blanks or colons");
        return path.string();
    }
    throw Failure("libquorvex_functions.so", "is not there, beside qvx or in the directory of its libraries");
}

/// Where the trace goes: in a directory, a file of the program's name that there is not yet.
std::string placeOf(const RecordOptions& options) {
    std::error_code missing;
    const std::string name = fs::path(options.program[0]).filename().string();
    const bool isDirectory = options.output.ends_with('/') || fs::is_directory(options.output, missing);
    if (!options.output.empty() && !isDirectory)
        return options.output;
    fs::path path = fs::path(options.output) / (name + ".qvx");
    for (unsigned n = 2; fs::exists(path, missing); ++n)
        path.replace_filename(fmt::format("{}-{}.qvx", name, n));
    return path.string();
}

/// A size as people tell it: 1000000, 512K, 64M, 1G.
std::uint64_t bytesOf(const std::string& text) {
    constexpr std::size_t kMostDigits = 15;
    const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
    const std::string unit = text.substr(digits);
    const std::size_t power = unit.empty() ? 0 : std::string("KMG").find(unit) + 1;
    if (digits == 0 || digits > kMostDigits || unit.size() > 1 || (power == 0 && !unit.empty()))
        throw Misuse("--ring", "'" + text + "' is no size as 512K or 64M");
    constexpr unsigned kThousand = 1024;
    std::uint64_t size = std::stoull(text);
    for (std::size_t i = 0; i < power; ++i)
        size *= kThousand;
    return size;
}

/// Leaves out of a thread's trace what was given back while it was recorded: whole pages of zeros, which no packets
/// begin with.
void closeGap(const std::string& trace) {
    const std::string whole = trace + ".whole";
    {
        CTraceSourceBufferFile file;
        if (!file.open(trace))
            throw Failure(trace, platform::errorText(platform::openError(trace.c_str())));
        std::ofstream out(whole, std::ios::binary);
        std::vector<char> page(kPageSize);
        constexpr unsigned kLengthAt = 6; // of the frame, which is shorter now
        for (std::uint64_t at = 0; at < file.size(); at += page.size()) {
            unsigned count = 0;
            file.read(page.data(), static_cast<unsigned>(page.size()), at, count);
            if (at == 0)
                std::fill_n(page.begin() + kLengthAt, sizeof(std::uint64_t), static_cast<char>(-1));
            if (at == 0 || page[0] != 0 || page[1] != 0)
                out.write(page.data(), count);
        }
        if (!out.flush())
            throw Failure(whole, platform::errorText(EIO));
    }
    fs::rename(whole, trace);
    fs::remove(trace + ".page");
}

int runProgram(const RecordOptions& options, const Recording& recording) {
    std::string preload = library();
    if (const std::string others = platform::environment("LD_PRELOAD"); !others.empty())
        preload += ":" + others;
    platform::ChildProgram::Variables variables = {
        {"LD_PRELOAD", preload},
        {"QVX_TRACEDIR", recording.path()},
        {"QVX_TRACEFILENAME", ""},
        {"QVX_TRACEMODE", options.mapped ? "mapped" : ""},
        {"QVX_TRACECLOCK", options.clock},
        {"QVX_TRACERING", options.ring ? std::to_string(bytesOf(*options.ring)) : ""},
        {"QVX_TRACEDEPTH", options.depth.value_or("")},
        {"QVX_TRACERUN", recording.run()}};
    platform::ChildProgram program;
    if (const int error = program.start(options.program, variables, options.follows ? "" : "QVX_TRACEPROCESS"))
        throw Failure(options.program[0], platform::errorText(error));
    return program.wait(options.follows);
}

/// Makes one trace, with names, of what the threads have left.
ExitCode finish(const RecordOptions& options, const Recording& recording, Target& target) {
    Claims claims;
    const std::string merged = recording.path() + "/merged";
    Target whole(merged, false, claims);
    const std::vector<std::string> files = Inputs::filesOf({recording.path()});
    for (const std::string& file : files) {
        if (options.ring && fs::path(file).filename().string().starts_with("thread_"))
            closeGap(file);
    }
    ExitCode exitCode = merge(files, whole);

    target.open();
    TraceOutput output(target, true, false);
    std::uint64_t calls = 0;
    const auto write = [&](PacketPointer packet) {
        calls += packet->TraceCode() == FunctionEnter;
        output.write(std::move(packet), merged, 0);
    };
    CallFilter filter(options, write);
    exitCode = std::max(exitCode, resolve(merged, [&filter](PacketPointer packet) { filter.take(std::move(packet)); }));
    filter.finish();
    output.commit();
    tell(fmt::format("{} call{}, in {}", calls, plural(calls), target.name()));
    return exitCode;
}

ExitCode record(const RecordOptions& options) {
    CallFilter(options, {}); // says what is wrong with the options
    if (options.depth &&
        (options.depth->empty() || options.depth->find_first_not_of("0123456789") != std::string::npos))
        throw Misuse("--depth", "'" + *options.depth + "' is no number");
    if (options.ring)
        bytesOf(*options.ring);
    const std::string place = placeOf(options);
    Claims claims;
    Target target(place, options.force, claims);
    Recording recording(place);
    const int programs = runProgram(options, recording);
    std::error_code ignored;
    if (fs::is_empty(recording.path(), ignored)) {
        tell(options.program[0] + ": nothing was recorded; was it built with -finstrument-functions?");
        return static_cast<ExitCode>(programs == 0 ? static_cast<int>(Failed) : programs);
    }
    const ExitCode own = finish(options, recording, target);
    recording.done();
    return static_cast<ExitCode>(programs == 0 ? static_cast<int>(own) : programs);
}

} // namespace

void addRecord(Program& program) {
    auto options = std::make_shared<RecordOptions>();
    Verb verb = program.add("record", "Run a program that was built with -finstrument-functions, and record its calls");
    verb.option("PROGRAM", options->program, "The program and its arguments, behind --").required();
    verb.option("-o,--output", options->output, "Write to FILE, or to a new file in a directory (default: this one)");
    verb.flag("-f,--force", options->force, "Overwrite FILE if it exists");
    verb.flag("--mapped", options->mapped, "Lose nothing when the program is killed or crashes");
    verb.flag("--follow", options->follows, "Record the processes that it starts, too");
    verb.option("--only", options->only, "Only functions of that name: 'read*'; several times for several", "GLOB");
    verb.option("--no", options->no, "None of that name", "GLOB");
    verb.option("--depth", options->depth, "At most N functions in each other", "N");
    verb.option("--min", options->min, "Only calls that take so long: 100us, 1.5ms", "DURATION");
    verb.option("--ring", options->ring, "Keep so much of each thread, the last: 512K, 64M", "SIZE");
    verb.choice("--clock", options->clock, {{"auto", "auto"}, {"tsc", "tsc"}, {"monotonic", "monotonic"}},
                "auto (default), tsc: the processor's counter, monotonic: the system's", "CLOCK");
    verb.footer(
        "Example: qvx record -o run.qvx -- ./program argument\n"
        "The exit code is the program's, or 128 and the signal that has ended it; of one that ends with 0, that "
        "of\nqvx. Without --mapped, a thread that is killed loses its last 256 KiB.");
    verb.runs([options] { return record(*options); });
}

} // namespace qvx
