// SPDX-License-Identifier: MIT
// A program that loads the library while it runs, as editors load what their plug-ins bring along:
// argument 1 is a module that uses the library. Counts what the module's audio thread allocates.
#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdio>

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
}

namespace {
std::atomic<bool> isWatching{false};
std::atomic<pthread_t> watched{};
std::atomic<int> count{0};

void check()
{
    if (isWatching && pthread_equal(watched, pthread_self()))
        ++count;
}
} // namespace

extern "C" {
void *malloc(size_t size)
{
    check();
    return __libc_malloc(size);
}

void *calloc(size_t items, size_t size)
{
    check();
    return __libc_calloc(items, size);
}

void *realloc(void *block, size_t size)
{
    check();
    return __libc_realloc(block, size);
}

/// For the module: counts from now on what the calling thread allocates.
void beginWatch()
{
    watched = pthread_self();
    isWatching = true;
}

/// Answers the number.
int endWatch()
{
    isWatching = false;
    return count.exchange(0);
}
}

int main(int argc, char **argv)
{
    if (argc != 2)
        return 2;
    for (int i = 0; i < 2; ++i) {
        void *const module = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
        if (!module) {
            std::fprintf(stderr, "%s\n", dlerror());
            return 1;
        }
        auto *const play = reinterpret_cast<int (*)()>(dlsym(module, "play"));
        if (!play || play() != 0)
            return 1;
        // Threads of the library that go on must not lose their code.
        dlclose(module);
    }
    return 0;
}
