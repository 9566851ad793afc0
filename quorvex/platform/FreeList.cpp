#include "quorvex/platform/FreeList.h"

#include <array>

#if !defined(_WIN32)
#include <pthread.h>
#endif

namespace Quorvex::platform {

namespace {

constexpr std::size_t kGrain = 16;

/// The blocks that a thread keeps, by size.
struct Blocks {
    struct Block {
        Block* next;
    };
    std::array<Block*, kLargestKept / kGrain> first{};
    std::size_t room = kMostKept; ///< for so many more bytes

    Blocks() = default;
    Blocks(const Blocks&) = delete;
    Blocks& operator=(const Blocks&) = delete;
    ~Blocks() {
        for (Block* block : first) {
            while (block) {
                Block* const next = block->next;
                ::operator delete(block);
                block = next;
            }
        }
    }
};

/// Which list a block is of; beyond all of them for one that is not kept.
constexpr std::size_t listOf(std::size_t size) {
    return (size - 1) / kGrain;
}
constexpr std::size_t sizeIn(std::size_t list) {
    return (list + 1) * kGrain;
}
static_assert(listOf(1) == 0 && listOf(kLargestKept) == std::tuple_size_v<decltype(Blocks::first)> - 1 &&
              listOf(0) > listOf(kLargestKept) && sizeIn(listOf(17)) == 32 && kGrain >= sizeof(Blocks::Block));

constexpr bool isKept(std::size_t list) {
    return kKeepsFreed && list <= listOf(kLargestKept);
}

/// A block that is kept, or one that `make` makes of a size.
template <class Make> void* take(std::size_t size, Make&& make) {
    const std::size_t list = listOf(size);
    if (!isKept(list))
        return make(size);
    if (Blocks* const blocks = OfThread<Blocks>::find()) {
        if (Blocks::Block* const block = blocks->first[list]) {
            blocks->first[list] = block->next;
            blocks->room += sizeIn(list);
            return block;
        }
    }
    return make(sizeIn(list));
}

} // namespace

void* takeBlock(std::size_t size) {
    return take(size, [](std::size_t bytes) { return ::operator new(bytes); });
}

void* takeBlock(std::size_t size, const std::nothrow_t& none) noexcept {
    return take(size, [&none](std::size_t bytes) { return ::operator new(bytes, none); });
}

void giveBlock(void* block, std::size_t size) noexcept {
    const std::size_t list = listOf(size);
    if (isKept(list)) {
        Blocks* const blocks = OfThread<Blocks>::get();
        if (blocks && blocks->room >= sizeIn(list)) {
            blocks->room -= sizeIn(list);
            blocks->first[list] = new (block) Blocks::Block{blocks->first[list]};
            return;
        }
    }
    ::operator delete(block);
}

#if defined(_WIN32)

ThreadKey::ThreadKey(void (*ended)(void*)) : m_ended(ended) {}
ThreadKey::~ThreadKey() = default;
bool ThreadKey::set(void*) const {
    return false;
}

#else

ThreadKey::ThreadKey(void (*ended)(void*)) : m_ended(ended) {
    pthread_key_t key{};
    m_made = pthread_key_create(&key, ended) == 0;
    m_key = key;
}

ThreadKey::~ThreadKey() {
    const auto key = static_cast<pthread_key_t>(m_key);
    void* const value = m_made ? pthread_getspecific(key) : nullptr;
    if (m_made)
        pthread_key_delete(key);
    m_made = false;
    if (value)
        m_ended(value);
}

bool ThreadKey::set(void* value) const {
    return m_made && pthread_setspecific(static_cast<pthread_key_t>(m_key), value) == 0;
}

#endif

} // namespace Quorvex::platform
