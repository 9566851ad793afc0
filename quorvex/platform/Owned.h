#pragma once

#include <utility>

namespace Quorvex::platform {

/// Owns an object whose class may be known to the sources alone. It is destroyed as what it was made as. Smart pointers
/// of the standard library do the same, but take more of the compiler's time in every file that sees them.
template <class T> class Owned {
public:
    Owned() = default;
    /// Takes over an object that was made by new; null for none.
    template <class Made>
    explicit Owned(Made* object)
        : m_object(object), m_made(object), m_destroy([](void* made) { delete static_cast<Made*>(made); }) {}
    Owned(Owned&& other) noexcept
        : m_object(std::exchange(other.m_object, nullptr)), m_made(other.m_made), m_destroy(other.m_destroy) {}
    /// From an object of a derived class.
    template <class Derived>
    Owned(Owned<Derived>&& other) noexcept
        : m_object(std::exchange(other.m_object, nullptr)), m_made(other.m_made), m_destroy(other.m_destroy) {}
    Owned& operator=(Owned&& other) noexcept {
        Owned taken(std::move(other));
        std::swap(m_object, taken.m_object);
        std::swap(m_made, taken.m_made);
        std::swap(m_destroy, taken.m_destroy);
        return *this;
    }
    ~Owned() { reset(); }

    void reset() {
        if (std::exchange(m_object, nullptr))
            m_destroy(m_made);
    }
    T* get() const { return m_object; }
    T& operator*() const { return *m_object; }
    T* operator->() const { return m_object; }
    explicit operator bool() const { return m_object != nullptr; }

private:
    template <class Other> friend class Owned;

    T* m_object = nullptr;
    void* m_made = nullptr; ///< the same, as what it was made as
    void (*m_destroy)(void* made) = nullptr;
};

/// Makes an object that is owned.
template <class T, class... Values> Owned<T> makeOwned(Values&&... values) {
    return Owned<T>(new T(std::forward<Values>(values)...));
}

} // namespace Quorvex::platform
