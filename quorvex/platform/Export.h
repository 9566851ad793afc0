#pragma once

/// QUORVEX_API marks what a shared build of the library exports. Everything else stays hidden.
/// Class templates carry QUORVEX_TEMPLATE_API: their type information must be one and the same on both sides of a
/// shared library's border, which ELF needs to be told and Windows must not.
/// QUORVEX_EXTERN_TEMPLATE says that the library holds an instantiation of a class template. Users of a Windows library
/// make its inline functions themselves, because compilers do not export those.
/// Short members of such templates are [[gnu::always_inline]], and quorvex.map hides them: else callers that are not
/// optimised ask the library for each of them, and it has their names in its tables for each class.
#if defined(_WIN32)
#if defined(QUORVEX_SHARED_BUILD)
#define QUORVEX_API __declspec(dllexport)
#elif defined(QUORVEX_SHARED)
#define QUORVEX_API __declspec(dllimport)
#else
#define QUORVEX_API
#endif
#define QUORVEX_TEMPLATE_API
#else
#define QUORVEX_API __attribute__((visibility("default")))
#define QUORVEX_TEMPLATE_API __attribute__((visibility("default")))
#endif

#if defined(_WIN32) && defined(QUORVEX_SHARED) && !defined(QUORVEX_SHARED_BUILD)
#define QUORVEX_EXTERN_TEMPLATE(...)
#else
#define QUORVEX_EXTERN_TEMPLATE(...) extern template class QUORVEX_API __VA_ARGS__;
#endif
