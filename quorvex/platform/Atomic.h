#pragma once

#include <type_traits>

#if !defined(__GNUC__)
#include <atomic>
#endif

namespace Quorvex::platform {

#if defined(__GNUC__)

/// std::atomic for integers and bool, with what the library needs of it. Where compilers have the operations built in,
/// headers do without <atomic>, which takes more of the compiler's time than most of them. `Order` is
/// std::memory_order, for sources that include it.
template <class T> class Atomic {
public:
    constexpr Atomic(T value = T()) : m_value(value) {}
    Atomic(const Atomic&) = delete;
    Atomic& operator=(const Atomic&) = delete;

    /// Loads in no order to other memory.
    T relaxed() const { return __atomic_load_n(&m_value, __ATOMIC_RELAXED); }

    T load() const { return __atomic_load_n(&m_value, __ATOMIC_SEQ_CST); }
    void store(T value) { __atomic_store_n(&m_value, value, __ATOMIC_SEQ_CST); }
    T exchange(T value) { return __atomic_exchange_n(&m_value, value, __ATOMIC_SEQ_CST); }
    T fetch_add(T value) { return __atomic_fetch_add(&m_value, value, __ATOMIC_SEQ_CST); }

    template <class Order> T load(Order order) const { return __atomic_load_n(&m_value, static_cast<int>(order)); }
    template <class Order> void store(T value, Order order) {
        __atomic_store_n(&m_value, value, static_cast<int>(order));
    }
    template <class Order> T fetch_add(T value, Order order) {
        return __atomic_fetch_add(&m_value, value, static_cast<int>(order));
    }

    operator T() const { return load(); }
    T operator=(T value) {
        store(value);
        return value;
    }
    T operator++() { return static_cast<T>(fetch_add(1) + 1); }
    T operator+=(T value) { return static_cast<T>(fetch_add(value) + value); }

private:
    static_assert(std::is_integral_v<T>);
    alignas(sizeof(T)) T m_value;
};

/// Stores behind all that was stored before.
template <class T> void storeRelease(T& to, T value) {
    __atomic_store_n(&to, value, __ATOMIC_RELEASE);
}

#else

template <class T> class Atomic : public std::atomic<T> {
public:
    constexpr Atomic(T value = T()) : std::atomic<T>(value) {}
    using std::atomic<T>::operator=;
    /// Loads in no order to other memory.
    T relaxed() const { return this->load(std::memory_order_relaxed); }
};

/// Stores behind all that was written before.
template <class T> void storeRelease(T& to, T value) {
    std::atomic_ref(to).store(value, std::memory_order_release);
}

#endif

} // namespace Quorvex::platform
