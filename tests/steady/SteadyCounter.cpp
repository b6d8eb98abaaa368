#include "SteadyCounter.h"

#include <array>
#include <cstddef>
#include <cstring>

#include <dlfcn.h>

#include <epoxy/gl.h>

// The C library's own, by the names that it exports them under for replacements like these.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
}
// NOLINTEND(bugprone-reserved-identifier)

namespace {

bool counting = false;
int allocations = 0;
int objects = 0;

/// Whether an address lies in a library whose allocations count.
bool isOurs(const void* address)
{
    Dl_info info{};
    if (dladdr(address, &info) == 0 || !info.dli_fname) {
        return false;
    }
    constexpr std::array libraries{"libQel", "libQt6", "libstdc++", "qel-steady-tests"};
    for (const char* library : libraries) {
        if (std::strstr(info.dli_fname, library)) {
            return true;
        }
    }
    return false;
}

void count(const void* caller)
{
    if (counting) {
        // dladdr must not count itself.
        counting = false;
        allocations += isOurs(caller) ? 1 : 0;
        counting = true;
    }
}

template<auto& pointer, class Function>
struct Wrapped;

/// Replaces an entry point that creates objects by one that counts them.
template<auto& pointer, class... Arguments>
struct Wrapped<pointer, void (*)(Arguments...)>
{
    static inline void (*original)(Arguments...) = nullptr;
    static void call(Arguments... arguments)
    {
        ++objects;
        original(arguments...);
    }
    static void install()
    {
        original = pointer;
        pointer = &call;
    }
    static void remove() { pointer = original; }
};

template<auto& pointer>
using Creator = Wrapped<pointer, std::remove_reference_t<decltype(pointer)>>;

template<auto&... pointers>
struct Creators
{
    static void install() { (Creator<pointers>::install(), ...); }
    static void remove() { (Creator<pointers>::remove(), ...); }
};

using AllCreators = Creators<epoxy_glGenTextures, epoxy_glGenFramebuffers, epoxy_glGenBuffers,
                             epoxy_glGenVertexArrays, epoxy_glGenRenderbuffers, epoxy_glGenQueries,
                             epoxy_glTexImage2D, epoxy_glTexImage3D, epoxy_glLinkProgram>;

} // namespace

// The program's own take precedence over the C library's in every library.
extern "C" {

void* malloc(size_t size)
{
    count(__builtin_return_address(0));
    return __libc_malloc(size);
}

void* calloc(size_t number, size_t size)
{
    count(__builtin_return_address(0));
    return __libc_calloc(number, size);
}

void* realloc(void* block, size_t size)
{
    count(__builtin_return_address(0));
    return __libc_realloc(block, size);
}
}

namespace Morvane::Qel::Test {

SteadyCounter::SteadyCounter()
{
    allocations = 0;
    objects = 0;
    AllCreators::install();
    counting = true;
}

SteadyCounter::~SteadyCounter()
{
    counting = false;
    AllCreators::remove();
}

int SteadyCounter::numAllocations()
{
    return allocations;
}

int SteadyCounter::numObjects()
{
    return objects;
}

} // namespace Morvane::Qel::Test
