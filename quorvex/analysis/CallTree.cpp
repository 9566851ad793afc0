#include "quorvex/analysis/CallTree.h"

#include "quorvex/analysis/CallWalk.h"

#include <algorithm>
#include <map>
#include <numeric>
#include <optional>
#include <span>
#include <tuple>
#include <utility>

namespace Quorvex {

namespace {

/// What stands for a thread, or for all of them, is no function.
constexpr std::uint64_t kNone = CallTree::kOther - 1;

struct Nothing {};

/// A packet and its tick, for the walk.
struct Told {
    /// What it enters or leaves.
    struct Step {
        const CCoreContext& context;
        std::uint32_t id;
        std::uint64_t tick;

        std::uint32_t HWCtx() const { return context.HWCtx(); }
        std::uint32_t SWCtx() const { return context.SWCtx(); }
        std::uint32_t TgtFuncId() const { return id; }
        std::uint64_t Tick() const { return tick; }
    };
    tagTCode TraceCode() const { return packet.TraceCode(); }
    template <class Packet> std::optional<Step> as() const {
        const auto& its = *packetAs<Packet>(packet);
        return Step{its, its.TgtFuncId(), tick};
    }

    const CPacket& packet;
    std::uint64_t tick;
};
const CPacket* objectOf(const Told& packet) {
    return &packet.packet;
}

} // namespace

/// The end of a path.
struct CallTree::Node {
    using Threads = std::map<std::pair<std::uint32_t, std::uint32_t>, Node*>; ///< by process and number

    std::uint64_t function;
    Node* caller; ///< null for a thread
    const Threads::value_type* thread;
    std::uint32_t index;  ///< among all; greater than that of the caller
    Node* last = nullptr; ///< where the last call from here led
    std::uint64_t calls = 0, unfinished = 0, total = 0, self = 0;

    /// Whether nothing but its function is known of it.
    bool isFlat() const { return caller && caller->function == kOther; }
    void add(std::uint64_t moreCalls, std::uint64_t moreUnfinished, std::uint64_t moreTotal, std::uint64_t moreSelf) {
        calls += moreCalls;
        unfinished += moreUnfinished;
        total += isFlat() ? moreSelf : moreTotal;
        self += moreSelf;
    }
};

/// All paths.
struct CallTree::Paths {
    explicit Paths(std::size_t most) : mostPaths(most) {}

    Node& threadOf(const Node::Threads::key_type& place) {
        const auto [at, isNew] = threads.try_emplace(place);
        if (isNew)
            at->second = &add({kNoCaller, threads.size()}, kNone, nullptr, &*at);
        return *at->second;
    }
    /// Where a path leads to when a function is called at its end.
    Node& called(Node& by, std::uint64_t function) {
        Node& from = by.isFlat() ? *by.caller : by;
        if (!from.last || from.last->function != function) {
            const Key key{from.index, function};
            Node* const known = nodes.find(key);
            if (!known && nodes.size() >= mostPaths && from.function != kOther && function != kOther)
                from.last = &called(called(*from.thread->second, kOther), function);
            else
                from.last = known ? known : &add(key, function, &from, from.thread);
        }
        return *from.last;
    }

    static constexpr std::uint32_t kNoCaller = ~std::uint32_t{0};
    struct Key {
        std::uint32_t caller;   ///< its index
        std::uint64_t function; ///< of a thread, which has no caller, its number

        std::uint64_t hash() const { return std::uint64_t{caller} << 32 ^ function; }
        bool operator==(const Key&) const = default;
    };

    std::size_t mostPaths;
    Directory<Key, Node> nodes; ///< each with its index
    Node::Threads threads;

private:
    Node& add(const Key& key, std::uint64_t function, Node* caller, const Node::Threads::value_type* thread) {
        const auto index = static_cast<std::uint32_t>(nodes.size());
        return nodes.findOrMake(key, [&] { return Node{function, caller, thread, index}; });
    }
};

/// One trace while it is read.
struct CallTree::Reading : CallWalk<CallTree::Reading, CallTree::Node*, Nothing> {
    Reading(CallTree& tree, CTraceNames& names, std::uint32_t process)
        : CallWalk(tree, tree.m_window, names, process), to(tree) {}

    Node* enter(Thread& thread, std::uint32_t id) {
        const std::uint64_t function = names().numberOf(TextSort::Function, id, process());
        if (!thread.calls.empty() && thread.calls.back().mark)
            return &to.m_paths->called(*thread.calls.back().mark, function);
        Node& begin = to.m_byThread ? to.m_paths->threadOf({process(), thread.number}) : to.m_paths->threadOf({0, 0});
        return &to.m_paths->called(begin, function);
    }
    void leave(const Node*) {}
    void count(Node* node, const CallTime& time) { node->add(1, !time.isLeft, time.duration, time.self); }

    CallTree& to;
};

CallTree::CallTree(bool byThread, TickWindow window, std::size_t mostPaths)
    : m_byThread(byThread), m_window(window), m_paths(platform::makeOwned<Paths>(mostPaths)) {}

CallTree::~CallTree() = default;

void CallTree::read(TraceFile& trace, CTraceNames& names, std::uint32_t process, Condition<const CTraceCursor&> takes) {
    Reading(*this, names, process).read(trace, takes);
}

void CallTree::read(TraceFile& trace, CTraceNames& names, std::uint32_t process) {
    Reading(*this, names, process).read(trace, [](const CTraceCursor&) { return true; });
}

CallTree::Packets::Packets(CallTree& to, CTraceNames& names, std::uint32_t process)
    : m_reading(platform::makeOwned<Reading>(to, names, process)) {}

CallTree::Packets::~Packets() = default;

void CallTree::Packets::add(const CPacket& packet, std::uint64_t tick) {
    m_reading->look(Told{packet, tick});
}

void CallTree::Packets::finish() {
    m_reading->finish();
}

void CallTree::beginWith(Condition<std::uint64_t> takes) {
    const platform::Owned<Paths> old(std::exchange(m_paths, platform::makeOwned<Paths>(m_paths->mostPaths)));
    std::vector<Node*> newOnes; // by the index of the old; null for what is left out
    newOnes.reserve(old->nodes.size());
    for (const auto& [key, node] : old->nodes) {
        Node* caller = node.caller ? newOnes[node.caller->index] : nullptr;
        if (!caller && node.function < kNone && takes(node.function))
            caller = &m_paths->threadOf(node.thread->first);
        newOnes.push_back(caller ? &m_paths->called(*caller, node.function) : nullptr);
        if (newOnes.back())
            newOnes.back()->add(node.calls, node.unfinished, node.total, node.self);
    }
}

void CallTree::turnTo(Condition<std::uint64_t> takes) {
    const platform::Owned<Paths> old(std::exchange(m_paths, platform::makeOwned<Paths>(m_paths->mostPaths)));
    std::vector<bool> isWithin; // by the index: it or what calls it is taken
    isWithin.reserve(old->nodes.size());
    for (const auto& [key, node] : old->nodes) {
        const bool isInside = node.caller && isWithin[node.caller->index];
        const bool isTaken = node.function < kNone && takes(node.function);
        isWithin.push_back(isInside || isTaken);
        if (!isTaken || node.calls == 0)
            continue;
        const std::uint64_t time = isInside ? 0 : node.total;
        Node* to = &m_paths->threadOf(node.thread->first);
        for (const Node* at = &node; at->function != kNone; at = at->caller) {
            to = &m_paths->called(*to, at->function);
            to->add(node.calls, node.unfinished, time, at->caller->caller ? 0 : time);
        }
    }
}

std::vector<CallPath> CallTree::paths() const {
    // The last ones first, so that what is called comes before its caller.
    const Directory<Paths::Key, Node>& nodes = m_paths->nodes;
    std::vector<std::uint64_t> totals(nodes.size());
    std::vector<bool> areShown(nodes.size());            // they have calls, or lead to what has
    std::vector<std::uint32_t> begins(nodes.size() + 1); // of those that a path leads to, in `called`
    std::size_t count = 0;
    for (std::size_t index = nodes.size(); index-- > 0;) {
        const Node& node = nodes.at(index);
        totals[index] += node.total; // of kOther, what has been added from those behind
        areShown[index] = areShown[index] || node.calls > 0;
        if (!areShown[index] || !node.caller)
            continue;
        const std::uint32_t caller = node.caller->index;
        areShown[caller] = true;
        if (node.caller->function == kOther)
            totals[caller] += node.total;
        ++begins[caller];
        ++count;
    }
    std::partial_sum(begins.begin(), begins.end(), begins.begin()); // their ends, until they stand there
    std::vector<std::uint32_t> called(count); // indices, in the order of those that they are called by
    for (std::size_t index = nodes.size(); index-- > 0;) {
        if (areShown[index] && nodes.at(index).caller)
            called[--begins[nodes.at(index).caller->index]] = static_cast<std::uint32_t>(index);
    }
    std::vector<CallPath> paths;
    paths.reserve(count);
    std::vector<std::pair<std::uint32_t, std::uint32_t>> waiting; // with their depths, the next one last
    for (const auto& [thread, root] : m_paths->threads) {
        waiting.emplace_back(root->index, 0);
        while (!waiting.empty()) {
            const auto [index, depth] = waiting.back();
            waiting.pop_back();
            const Node& node = nodes.at(index);
            if (&node != root)
                paths.push_back({node.function, thread.second, thread.first, depth - 1, node.calls, node.unfinished,
                                 totals[index], node.self});
            const std::span next(called.begin() + begins[index], called.begin() + begins[index + 1]);
            std::ranges::sort(next, [&](std::uint32_t one, std::uint32_t other) {
                return std::tuple(totals[one], nodes.at(other).function) <
                       std::tuple(totals[other], nodes.at(one).function);
            });
            for (const std::uint32_t its : next)
                waiting.emplace_back(its, depth + 1);
        }
    }
    return paths;
}

} // namespace Quorvex
