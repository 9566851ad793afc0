#include "quorvex/instrument/Record.h"

#include "quorvex/instrument/CallRecording.h"
#include "quorvex/instrument/FactText.h"
#include "quorvex/packets/CounterPackets.h"
#include "quorvex/packets/EventPackets.h"
#include "quorvex/packets/MessagePackets.h"
#include "quorvex/platform/System.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <string_view>

namespace Quorvex::detail {

namespace {

constinit std::atomic<bool> g_isOff{false};
/// The number at a place; 0 where there is none yet.
unsigned numberAt(unsigned& place) {
    return std::atomic_ref(place).load(std::memory_order_relaxed);
}
/// Puts a number there, unless there is one; the one there is then.
unsigned settle(unsigned& place, unsigned number) {
    unsigned none = 0;
    return std::atomic_ref(place).compare_exchange_strong(none, number, std::memory_order_relaxed) ? number : none;
}

/// Gives numbers, from 1 on. What has one name has one number, in all modules, and when one is loaded again; beyond so
/// many names each place has its own.
class Numbers {
public:
    unsigned of(tagTCode sort, std::string_view name) {
        const std::uint64_t key = keyOf(sort, name);
        for (std::size_t i = 0; i < kMost; ++i) {
            Entry& entry = m_entries[(key + i) % kMost];
            std::uint64_t found = 0;
            if (!entry.key.compare_exchange_strong(found, key, std::memory_order_relaxed) && found != key)
                continue;
            const unsigned known = numberAt(entry.number);
            return known != 0 ? known : settle(entry.number, next());
        }
        return next();
    }

private:
    struct Entry {
        std::atomic<std::uint64_t> key{0};
        unsigned number = 0;
    };
    static constexpr std::size_t kMost = 1024;

    unsigned next() { return m_last.fetch_add(1, std::memory_order_relaxed) + 1; }
    static std::uint64_t keyOf(tagTCode sort, std::string_view name) {
        std::uint64_t hash = 0xcbf29ce484222325 ^ static_cast<unsigned char>(sort);
        for (const char c : name)
            hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3;
        return hash == 0 ? 1 : hash;
    }

    std::atomic<unsigned> m_last{0};
    Entry m_entries[kMost];
};

constinit Numbers g_numbers;

} // namespace

struct OwnRecording {
    using Stream = CQVXInstrumentingStream;
    template <class... Fields> using Bytes = Stream::Bytes<Fields...>;

    static Stream* stream() { return g_isOff.load(std::memory_order_relaxed) ? nullptr : Stream::ofThread(); }

    /// The number of a site. Where the stream does not know it yet, it is told what that is: by `define(known,
    /// number)`.
    template <class Define>
    static unsigned announced(Stream& stream, quorvex_site& site, tagTCode sort, const char* name, Define define) {
        const unsigned number = numberAt(site);
        return stream.m_announced.contains(number) ? number : announce(stream, site, sort, name, define);
    }
    template <class Define>
    [[gnu::noinline, gnu::cold]] static unsigned announce(Stream& stream, quorvex_site& site, tagTCode sort,
                                                          const char* name, Define define) {
        unsigned number = numberAt(site);
        if (number == 0)
            number = settle(site, g_numbers.of(sort, name));
        if (stream.takesPackets()) // else each use would count as two that were refused
            define(stream.m_announced, number);
        return number;
    }

    static unsigned enter(quorvex_site& site, const char* name) {
        Stream* const stream = OwnRecording::stream();
        if (!stream) [[unlikely]]
            return 0;
        const unsigned number = announced(*stream, site, FunctionDefine, name, [=](IdSet& known, unsigned id) {
            stream->define(known, id, Bytes<std::uint32_t>{FunctionDefine, {id}, name});
        });
        stream->recordCall<FunctionEnter>(number);
        return number;
    }

    static void leave(unsigned number) {
        // The stream may have been completed since; it is asked for again rather than remembered.
        if (Stream* const stream = Stream::ofThread())
            stream->recordCall<FunctionLeave>(number);
    }

    static void count(quorvex_site& site, const char* name, const char* unit, std::uint64_t value) {
        Stream* const stream = OwnRecording::stream();
        if (!stream)
            return;
        const unsigned number = announced(*stream, site, CounterDefine, name, [=](IdSet& known, unsigned id) {
            using Definition = Bytes<std::uint32_t, std::uint8_t>;
            const Definition counter{CounterDefine, {id, std::uint8_t{0}}, name};
            if (*unit == '\0')
                stream->define(known, id, counter);
            else
                stream->define(known, id, counter, Definition{CounterDefineUnit, {id, std::uint8_t{0}}, unit});
        });
        stream->record(Bytes<std::uint32_t, std::uint64_t>{CounterValue, {number, value}});
    }

    static void event(quorvex_site& site, const char* name, std::string_view data) {
        Stream* const stream = OwnRecording::stream();
        if (!stream)
            return;
        const unsigned number = announced(*stream, site, EventDefine, name, [=](IdSet& known, unsigned id) {
            using Definition = Bytes<std::uint32_t, std::uint32_t>;
            stream->define(known, id, Definition{EventDefine, {id, Trigger}, name, Definition::Begin::Nothing});
        });
        constexpr std::size_t kMostData = 64;
        stream->record(Bytes<std::uint32_t, std::string_view>{Event, {number, data.substr(0, kMostData)}});
    }

    static void message(int level, std::string_view text) {
        using Packet = Bytes<std::int8_t>;
        if (Stream* const stream = OwnRecording::stream())
            stream->record(Packet{Message, {static_cast<std::int8_t>(level)}, text, Packet::Begin::Tick});
    }

    static void name(std::string_view word, bool isThread, std::string_view name) {
        if (!OwnRecording::stream())
            return;
        char room[300];
        FactText text(room, sizeof room, word);
        if (isThread) {
            text.key("tid");
            text.number(platform::currentThreadId());
        }
        text.key("name");
        text.text(name);
        message(CMessagePayload::kDebugLevel, text.get());
    }
};

} // namespace Quorvex::detail

using Quorvex::detail::OwnRecording;

void quorvex_set_recording(int on) noexcept {
    Quorvex::detail::g_isOff.store(on == 0, std::memory_order_relaxed);
}

unsigned quorvex_enter(quorvex_site* site, const char* name) noexcept {
    return OwnRecording::enter(*site, name);
}

void quorvex_leave(unsigned entered) noexcept {
    if (entered != 0)
        OwnRecording::leave(entered);
}

void quorvex_count(quorvex_site* site, const char* name, const char* unit, int64_t value) noexcept {
    OwnRecording::count(*site, name, unit, static_cast<std::uint64_t>(value));
}

void quorvex_count_double(quorvex_site* site, const char* name, const char* unit, double value) noexcept {
    OwnRecording::count(*site, name, unit, std::bit_cast<std::uint64_t>(value));
}

void quorvex_event(quorvex_site* site, const char* name, const void* data, size_t size) noexcept {
    OwnRecording::event(*site, name, {static_cast<const char*>(data), size});
}

void quorvex_message(int level, const char* text) noexcept {
    OwnRecording::message(level, text);
}

void quorvex_name_thread(const char* name) noexcept {
    OwnRecording::name("thread", true, name);
}

void quorvex_name_process(const char* name) noexcept {
    OwnRecording::name("name", false, name);
}
