#include "quorvex/functions/ProcessFacts.h"

#include "quorvex/instrument/FactText.h"
#include "quorvex/instrument/RecordingFile.h"
#include "quorvex/packets/MessagePackets.h"
#include "quorvex/packets/StringPackets.h"
#include "quorvex/packets/TraceControlPackets.h"
#include "quorvex/platform/Clock.h"
#include "quorvex/platform/LittleEndian.h"
#include "quorvex/platform/System.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <link.h>
#include <sched.h>
#include <string_view>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>
#include <utility>

namespace Quorvex::detail::facts {

namespace {

using platform::Uninterrupted;

constexpr std::uint64_t kNanosecondsPerSecond = 1'000'000'000;

/// Whole pages of memory past the program's allocator: the stack of a thread may be small.
template <class T> class Pages {
public:
    explicit Pages(std::size_t count)
        : m_size(count * sizeof(T)), m_memory(static_cast<T*>(platform::allocatePages(m_size))) {}
    Pages(const Pages&) = delete;
    Pages& operator=(const Pages&) = delete;
    ~Pages() {
        if (m_memory)
            platform::freePages(m_memory, m_size);
    }
    T* get() const { return m_memory; }

private:
    std::size_t m_size;
    T* m_memory;
};

/// Only one thread at a time works on what is told. It is waited for, but not for good: it may itself wait for the
/// loader, which another thread holds that waits here.
class Turn {
public:
    Turn() {
        constexpr unsigned kMostParts = 10; // of a second
        const std::uint64_t until = platform::counterTick() + platform::counterFrequency() / kMostParts;
        while ((m_isBusy = s_busy.exchange(true, std::memory_order_acquire)) && platform::counterTick() < until)
            sched_yield();
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    ~Turn() {
        if (!m_isBusy)
            s_busy.store(false, std::memory_order_release);
    }
    explicit operator bool() const { return !m_isBusy; }
    static void reset() { s_busy = false; }

private:
    static constinit inline std::atomic<bool> s_busy{false};
    const Uninterrupted m_quiet; // its holder is in no signal handler's way
    bool m_isBusy = true;        ///< with another thread
};

constinit std::atomic<bool> g_begun{false};
/// The file; empty when there is none. Set before `g_begun`.
char g_path[2 * platform::kEnvironmentLimit + 4096];

/// Room for the text of a fact.
class FactRoom {
protected:
    static constexpr unsigned kMostText = 0x10000;
    Pages<char> m_pages{kMostText};
};

/// A packet with a text, made in a place and then written at once.
class Fact : private FactRoom, public FactText {
public:
    explicit Fact(std::string_view word) : FactText(m_pages.get(), m_pages.get() ? kMostText : 0, word) {}

    bool write(bool isFirst = false) const {
        constexpr std::size_t kRoom = 64 + CCharStringSequence::StreamSize(kMostText);
        const Pages<char> pages(kRoom);
        if (get().empty() || !pages.get())
            return false;
        char* to = pages.get();
        const auto store = [&to](auto value) {
            storeLittleEndian(to, value);
            to += sizeof value;
        };
        const std::uint64_t tick = platform::g_recordingClock.now();
        if (isFirst) {
            store(static_cast<std::uint8_t>(Timestamp));
            store(static_cast<std::uint8_t>(2 * sizeof tick));
            store(tick);
            store(platform::counterFrequency());
        }
        store(static_cast<std::uint8_t>(Message));
        store(static_cast<std::uint8_t>(CMessagePayload::Len()));
        store(tick);
        store(CMessagePayload::kDebugLevel);
        to = CCharStringSequence::writeText(to, reinterpret_cast<const unsigned char*>(get().data()),
                                            static_cast<unsigned>(get().size()));
        const int file = open(g_path, O_WRONLY | O_APPEND | O_CLOEXEC | O_NOCTTY);
        if (file < 0)
            return false;
        const auto size = to - pages.get();
        const bool done = ::write(file, pages.get(), static_cast<std::size_t>(size)) == size;
        close(file);
        return done;
    }
};

/// What is in a file of the system, or as much as goes into `size` bytes.
std::string_view contents(const char* path, char* to, std::size_t size) {
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    std::size_t got = 0;
    for (ssize_t count = 1; file >= 0 && count > 0 && got < size;
         got += static_cast<std::size_t>(std::max<ssize_t>(count, 0)))
        count = read(file, to + got, size - got);
    if (file >= 0)
        close(file);
    return {to, got};
}

/// When the process was made, in nanoseconds since the system was.
std::uint64_t startOfProcess(std::string_view stat) {
    constexpr unsigned kFieldsBehindName = 20;
    stat.remove_prefix(std::min(stat.size(), stat.rfind(')') + 1)); // names may hold anything
    for (unsigned i = 0; i < kFieldsBehindName && !stat.empty(); ++i)
        stat.remove_prefix(std::min(stat.size(), stat.find(' ') + 1));
    std::uint64_t steps = 0;
    for (; !stat.empty() && stat[0] >= '0' && stat[0] <= '9'; stat.remove_prefix(1))
        steps = steps * 10 + static_cast<std::uint64_t>(stat[0] - '0');
    return steps * (kNanosecondsPerSecond / static_cast<std::uint64_t>(sysconf(_SC_CLK_TCK)));
}

std::string_view program(char* to, std::size_t size) {
    const ssize_t length = readlink("/proc/self/exe", to, size);
    return {to, static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
}

void tellProcess() {
    constexpr std::size_t kRoom = 0x8000;
    const Pages<char> pages(kRoom);
    if (!pages.get())
        return;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const char* const run = std::getenv("QVX_TRACERUN");
    Fact process("process");
    process.key("parent");
    process.number(static_cast<std::uint64_t>(getppid()));
    process.key("start");
    process.number(startOfProcess(contents("/proc/self/stat", pages.get(), kRoom)));
    process.key("wall");
    process.number(static_cast<std::uint64_t>(now.tv_sec) * kNanosecondsPerSecond +
                   static_cast<std::uint64_t>(now.tv_nsec));
    process.key("run");
    process.text(run ? std::string_view(run) : "0", false);
    process.key("program");
    process.text(program(pages.get(), kRoom));
    process.write(true);

    Fact command("command");
    command.key("arguments");
    std::string_view arguments = contents("/proc/self/cmdline", pages.get(), kRoom);
    for (bool isFirst = true; !arguments.empty(); isFirst = false) {
        const std::string_view argument = arguments.substr(0, arguments.find('\0'));
        if (!isFirst)
            command.add(" ");
        command.text(argument, false);
        arguments.remove_prefix(std::min(arguments.size(), argument.size() + 1));
    }
    command.write();
}

/// A module as it has been told.
struct Module {
    std::uint64_t from, to;
    std::uint64_t hash; ///< of its name and build id
    bool isThere;       ///< in the round that looks for those that have gone
};

constexpr std::size_t kMostModules = 0x4000;
/// Those that are told; `kMostModules` of them have room.
constinit Module* g_modules = nullptr;
constinit std::size_t g_moduleCount = 0;
constinit unsigned long long g_adds = 0, g_subs = 0; ///< the loader's own count when that was done

std::string_view buildIdOf(const dl_phdr_info& info) {
    for (unsigned i = 0; i < info.dlpi_phnum; ++i) {
        const auto& part = info.dlpi_phdr[i];
        if (part.p_type != PT_NOTE)
            continue;
        const std::size_t padding = part.p_align == 8 ? 8 : 4;
        const auto padded = [padding](std::size_t size) { return (size + padding - 1) / padding * padding; };
        const char* at = reinterpret_cast<const char*>(info.dlpi_addr + part.p_vaddr);
        const char* const end = at + part.p_memsz;
        while (static_cast<std::size_t>(end - at) >= sizeof(ElfW(Nhdr))) {
            ElfW(Nhdr) note;
            std::memcpy(&note, at, sizeof note);
            const char* const name = at + sizeof note;
            const char* const text = at + padded(sizeof note + note.n_namesz);
            if (note.n_type == NT_GNU_BUILD_ID && std::string_view(name, note.n_namesz) == std::string_view("GNU", 4))
                return {text, note.n_descsz};
            at = text + padded(note.n_descsz);
            if (at > end)
                break;
        }
    }
    return {};
}

std::uint64_t hashOf(std::string_view text, std::uint64_t hash = 0xcbf29ce484222325) {
    for (const char c : text)
        hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3;
    return hash;
}

Module moduleOf(const dl_phdr_info& info) {
    Module module{UINT64_MAX, 0, 0, true};
    for (unsigned i = 0; i < info.dlpi_phnum; ++i) {
        const auto& part = info.dlpi_phdr[i];
        if (part.p_type != PT_LOAD)
            continue;
        module.from = std::min<std::uint64_t>(module.from, info.dlpi_addr + part.p_vaddr);
        module.to = std::max<std::uint64_t>(module.to, info.dlpi_addr + part.p_vaddr + part.p_memsz);
    }
    module.hash = hashOf(info.dlpi_name ? info.dlpi_name : "", hashOf(buildIdOf(info)));
    return module;
}

void tell(const Module& module, const dl_phdr_info& info, bool isProgram) {
    constexpr std::size_t kRoom = 0x2000;
    const Pages<char> pages(kRoom);
    if (!pages.get())
        return;
    Fact fact("module");
    fact.key("from");
    fact.address(module.from);
    fact.key("to");
    fact.address(module.to);
    fact.key("bias");
    fact.address(info.dlpi_addr);
    fact.key("build");
    const std::string_view build = buildIdOf(info);
    for (const char c : build)
        fact.byte(static_cast<unsigned char>(c));
    if (build.empty())
        fact.add("-");
    fact.key("path");
    const std::string_view name = info.dlpi_name ? info.dlpi_name : "";
    if (isProgram) {
        fact.text(program(pages.get(), kRoom));
    } else if (name.find('/') == std::string_view::npos) {
        fact.text(name.starts_with("linux-") ? "[vdso]" : name);
    } else {
        if (!name.starts_with('/') && getcwd(pages.get(), kRoom)) {
            fact.text(pages.get());
            fact.text("/");
        }
        fact.text(name);
    }
    fact.write();
}

void tellGone(const Module& module) {
    Fact fact("gone");
    fact.key("from");
    fact.address(module.from);
    fact.key("to");
    fact.address(module.to);
    fact.write();
}

/// A look at all modules: which of those that are told are there, and, when it `tells`, which others.
struct Look {
    bool tells;
    bool isFirst = true; ///< which is the program
    unsigned long long adds = 0, subs = 0;

    void take(const dl_phdr_info& info) {
        const bool isProgram = std::exchange(isFirst, false);
        adds = info.dlpi_adds;
        subs = info.dlpi_subs;
        const Module module = moduleOf(info);
        Module* const end = g_modules + g_moduleCount;
        Module* const known = std::find_if(g_modules, end, [&module](const Module& other) {
            return other.from == module.from && other.to == module.to && other.hash == module.hash;
        });
        if (known != end) {
            known->isThere = true;
        } else if (tells && module.to != 0 && g_moduleCount < kMostModules) {
            *end = module;
            ++g_moduleCount;
            tell(module, info, isProgram);
        }
    }
    void run() {
        dl_iterate_phdr(
            [](dl_phdr_info* info, std::size_t, void* look) {
                static_cast<Look*>(look)->take(*info);
                return 0;
            },
            this);
    }
};

/// In a forked child nothing is told yet.
void afterForkInChild() {
    Turn::reset();
    g_begun = false;
    g_path[0] = '\0';
    g_moduleCount = 0;
    g_adds = g_subs = 0;
}

bool makeFile() {
    try {
        const RecordingPlace place;
        const std::string stem = place.stem((place.prefix + "process_").c_str(), static_cast<unsigned>(getpid()));
        RecordingFile file;
        if (place.isTooLong() || !file.create(stem) || file.path().size() >= sizeof g_path)
            return false;
        std::memcpy(g_path, file.path().c_str(), file.path().size() + 1);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

} // namespace

void begin() {
    const Turn turn;
    if (!turn || g_begun)
        return;
    if (!g_modules) {
        g_modules = static_cast<Module*>(platform::allocatePages(kMostModules * sizeof(Module)));
        platform::onFork(nullptr, nullptr, afterForkInChild);
    }
    if (makeFile())
        tellProcess();
    else
        g_path[0] = '\0';
    g_begun = true;
}

void tellThread(ThreadName& told) {
    const Uninterrupted quiet;
    ThreadName name{};
    prctl(PR_GET_NAME, name.text);
    if (std::string_view(name.text) == told.text && told.isTold)
        return;
    told = name;
    told.isTold = true;
    Fact fact("thread");
    fact.key("tid");
    fact.number(platform::currentThreadId());
    fact.key("name");
    fact.text(name.text);
    fact.write();
}

bool tellModules() {
    const Turn turn;
    if (!turn || !g_begun || !g_modules)
        return false;
    // The loader counts what it loads and unloads.
    struct Counts {
        unsigned long long adds, subs;
    } counts{};
    dl_iterate_phdr(
        [](dl_phdr_info* info, std::size_t, void* to) {
            *static_cast<Counts*>(to) = {info->dlpi_adds, info->dlpi_subs};
            return 1;
        },
        &counts);
    if (counts.adds == g_adds && counts.subs == g_subs)
        return true;
    std::for_each(g_modules, g_modules + g_moduleCount, [](Module& module) { module.isThere = false; });
    // What has gone is told first: another one may stand in its place.
    Look{false}.run();
    Module* const end = g_modules + g_moduleCount;
    Module* const gone = std::partition(g_modules, end, [](const Module& module) { return module.isThere; });
    std::for_each(gone, end, tellGone);
    g_moduleCount = static_cast<std::size_t>(gone - g_modules);
    Look look{true};
    look.run();
    g_adds = look.adds;
    g_subs = look.subs;
    return true;
}

} // namespace Quorvex::detail::facts
