// Tells its modules, and the addresses of the functions that it enters. What they are called stands behind "//=";
// "at(N)" stands in a chain of inlined functions.

#include <cstdio>
#include <link.h>

#define PLAIN __attribute__((no_instrument_function))
#define APART __attribute__((noinline))
#define INLINED inline __attribute__((always_inline))

extern "C" PLAIN void __cyg_profile_func_enter(void* function, void*) {
    std::printf("enter %p\n", function);
}
extern "C" PLAIN void __cyg_profile_func_exit(void*, void*) {
    asm volatile(""); // so that there is something to call behind the last call of a function
}

PLAIN APART void at(int number) {
    std::printf("at %p %d\n", static_cast<void*>(static_cast<char*>(__builtin_return_address(0)) - 1), number);
}

PLAIN int tellModule(dl_phdr_info* info, std::size_t, void*) {
    unsigned long from = ~0UL, to = 0;
    char id[64] = "-";
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const ElfW(Phdr)& part = info->dlpi_phdr[i];
        const unsigned long start = info->dlpi_addr + part.p_vaddr;
        if (part.p_type == PT_LOAD) {
            from = start < from ? start : from;
            to = start + part.p_memsz > to ? start + part.p_memsz : to;
        } else if (part.p_type == PT_NOTE) {
            for (unsigned long note = start; note + 12 <= start + part.p_memsz;) {
                const unsigned* head = reinterpret_cast<const unsigned*>(note);
                const unsigned char* bytes = reinterpret_cast<const unsigned char*>(note + 16);
                for (unsigned at = 0; head[2] == NT_GNU_BUILD_ID && at < head[1] && at < 30; ++at)
                    std::sprintf(id + 2 * at, "%02x", bytes[at]);
                const unsigned long rounded = part.p_align == 8 ? 7 : 3;
                note += 12 + ((head[0] + 3UL) & ~3UL);
                note = (note + head[1] + rounded) & ~rounded;
            }
        }
    }
    std::printf("module %#lx %#lx %#lx %s %s\n", from, to, static_cast<unsigned long>(info->dlpi_addr), id,
                info->dlpi_name);
    return 0;
}

static int plain(int x) { //= plain(int)
    return x + 1;
}

namespace {
APART int hidden() { //= (anonymous namespace)::hidden()
    return plain(1);
}
} // namespace

extern "C" APART int inC(int x) { //= inC
    return x - 1;
}

namespace outer {
inline namespace v2 {
template <class T, int N> struct Ring {
    T values[N];
    template <class U> APART U sum(U start) const { //= double outer::v2::Ring<int, 8>::sum<double>(double) const
        for (T value : values)
            start += value;
        return start;
    }
    APART explicit operator bool() const { //= outer::v2::Ring<int, 8>::operator bool() const
        return values[0] > 0;
    }
};

struct Base {
    int value;
    APART Base(int its);    // defined below
    virtual APART ~Base() { //= outer::v2::Base::~Base()
        plain(value);
    }
};
Base::Base(int its) : value(its) { //= outer::v2::Base::Base(int)
}

INLINED void leaf() { //= outer::v2::leaf()
    at(1);
}
INLINED void middle() { //= outer::v2::middle()
    leaf();
}
} // namespace v2
} // namespace outer

namespace shop {
struct Till {
    APART int open(int x) { //= shop::Till::open(int)
        struct Local {
            APART static int inside(int y) { //= shop::Till::open(int)::Local::inside(int)
                return y + 1;
            }
        };
        const auto twice = [](int y) { //= shop::Till::open(int)::{lambda}::operator()(int) const
            at(2);
            return 2 * y;
        };
        return Local::inside(x) + twice(x);
    }
};
} // namespace shop

APART void work() { //= work()
    outer::middle();
}

APART void cold(int x) { //= cold(int)
    if (__builtin_expect(x > 100, 0)) {
        at(3);
        throw x;
    }
}

int main(int, char**) { //= main
    dl_iterate_phdr(tellModule, nullptr);
    std::printf("library %p puts\n", reinterpret_cast<void*>(&std::puts));
    hidden();
    inC(1);
    outer::Ring<int, 8> ring{};
    ring.sum(1.5);
    { outer::Base base(bool(ring) ? 2 : 1); }
    shop::Till().open(3);
    work();
    cold(1);
    try {
        cold(101);
    } catch (int) {
    }
}
