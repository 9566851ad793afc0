#pragma once

/// Shapes of payload that several families have.

#include "quorvex/packets/PacketProtocol.h"

/// A payload that is one identifier; QUORVEX_PUBLIC_OPERATIONS may follow the name.
#define QUORVEX_ID_PAYLOAD(Class, Name, ...)                                                                           \
    class QUORVEX_API Class : public PayloadOperations<Class> {                                                        \
        QUORVEX_FIELD(std::uint32_t, Name, 0)                                                                          \
        __VA_ARGS__                                                                                                    \
                                                                                                                       \
    public:                                                                                                            \
        using Forms = FormList<Form<std::uint32_t>>;                                                                   \
                                                                                                                       \
        Class() = default;                                                                                             \
        explicit Class(std::uint32_t Name) : m_##Name(Name) {}                                                         \
                                                                                                                       \
        static constexpr std::uint8_t Len() { return 4; }                                                              \
        template <class Self, class Visitor> static void fields(Self& self, Visitor& visit) {                          \
            visit(FieldMeaning::Id, #Name, self.m_##Name);                                                             \
        }                                                                                                              \
    };

/// The name that a define packet gives; it follows the packet.
#define QUORVEX_DEFINITION(Name)                                                                                       \
public:                                                                                                                \
    const CCharStringSequence& Name() const {                                                                          \
        return m_##Name;                                                                                               \
    }                                                                                                                  \
    void Name(const CCharStringSequence& name) {                                                                       \
        m_##Name = name;                                                                                               \
    }                                                                                                                  \
    CCharStringSequence& followingText() {                                                                             \
        return m_##Name;                                                                                               \
    }                                                                                                                  \
    const CCharStringSequence& followingText() const {                                                                 \
        return m_##Name;                                                                                               \
    }                                                                                                                  \
                                                                                                                       \
private:                                                                                                               \
    CCharStringSequence m_##Name;

/// A payload that is a name alone.
#define QUORVEX_NAME_PAYLOAD(Class, Name)                                                                              \
    class QUORVEX_API Class : public PayloadOperations<Class> {                                                        \
        QUORVEX_DEFINITION(Name)                                                                                       \
                                                                                                                       \
    public:                                                                                                            \
        using Forms = FormList<Form<const CCharStringSequence&>>;                                                      \
                                                                                                                       \
        Class() = default;                                                                                             \
        explicit Class(const CCharStringSequence& name) : m_##Name(name) {}                                            \
                                                                                                                       \
        static constexpr std::uint8_t Len() { return 0; }                                                              \
        template <class Self, class Visitor> static void fields(Self&, Visitor&) {}                                    \
    };
