#pragma once

#include <utility>

namespace Quorvex::platform {

/// Owns an object whose class may be known to the sources alone. Smart pointers of the standard library do the same,
/// but take more of the compiler's time in every file that sees them.
template <class T> class Owned {
public:
    Owned() = default;
    /// Takes over an object that was made by new, where its class is known; null for none.
    explicit Owned(T* object) : m_object(object), m_destroy([](T* own) { delete own; }) {}
    Owned(Owned&& other) noexcept : m_object(std::exchange(other.m_object, nullptr)), m_destroy(other.m_destroy) {}
    /// From an object of a derived class; T's destructor is virtual then.
    template <class Derived> Owned(Owned<Derived>&& other) noexcept : Owned(other.give()) {}
    Owned& operator=(Owned&& other) noexcept {
        if (this != &other) {
            reset();
            m_object = std::exchange(other.m_object, nullptr);
            m_destroy = other.m_destroy;
        }
        return *this;
    }
    ~Owned() { reset(); }

    void reset() { ///< to none
        if (T* const own = give())
            m_destroy(own);
    } // NOLINT(clang-analyzer-cplusplus.NewDeleteLeaks): it does not look behind a virtual destructor
    T* give() { return std::exchange(m_object, nullptr); } ///< to one who owns it from then on
    T* get() const { return m_object; }                    ///< null for none
    T& operator*() const { return *m_object; }             ///< what is owned
    T* operator->() const { return m_object; }             ///< what is owned
    explicit operator bool() const { return m_object != nullptr; }

private:
    T* m_object = nullptr;
    void (*m_destroy)(T* object) = nullptr;
};

/// Makes an object that is owned.
template <class T, class... Values> Owned<T> makeOwned(Values&&... values) {
    return Owned<T>(new T(std::forward<Values>(values)...));
}

} // namespace Quorvex::platform
