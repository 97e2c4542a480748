// SPDX-License-Identifier: MIT
// Stands in front of the allocators for the whole program.
#include <support/allocation_failure.h>

#include <QtCore/QArrayData>
#include <QtCore/QStringList>

#include <execinfo.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <dlfcn.h>
#include <link.h>
#include <new>

extern "C" {
extern const char __executable_start; // the linker's
extern const char etext;
#if !defined(QTOVELMIXER_MALLOC_IS_TAKEN)
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
#endif
}

namespace {

using Threads = AllocationFailure::Threads;
using Requests = AllocationFailure::Requests;

struct Code
{
    const char *begin = nullptr;
    const char *end = nullptr;

    bool contains(const void *address) const { return begin <= address && address < end; }
};

std::atomic<bool> armed{false};
std::atomic<bool> failed{false};
std::atomic<qint64> left{0};
Threads countedThreads;
Requests countedRequests;
thread_local bool isArming __attribute__((tls_model("initial-exec"))) = false;

std::array<void *, 64> place;
int depth = 0;

const Code program{&__executable_start, &etext};

Code codeOf(const char *name)
{
    void *const address = dlsym(RTLD_DEFAULT, name);
    Dl_info info;
    void *entry = nullptr;
    if (!address || !dladdr1(address, &info, &entry, RTLD_DL_SYMENT) || !entry)
        return {};
    const char *const begin = static_cast<const char *>(address);
    return {begin, begin + static_cast<const ElfW(Sym) *>(entry)->st_size};
}

template <size_t Size>
bool contain(const std::array<Code, Size> &code, const void *address)
{
    return std::any_of(code.begin(), code.end(),
                       [address](const Code &one) { return one.contains(address); });
}

// What all of Qt's lists and strings take their memory through.
const std::array<Code, 2> containers{
    codeOf("_ZN10QArrayData8allocateEPPS_xxxNS_16AllocationOptionE"),
    codeOf("_ZN10QArrayData19reallocateUnalignedEPS_PvxxNS_16AllocationOptionE"),
};

// What of Qt does not stand a failure: reading JSON ends the process then, and a timer that was
// half registered goes off when its object has long been deleted.
const std::array<Code, 4> fragile{
    codeOf("_ZN13QJsonDocument8fromJsonERK10QByteArrayP15QJsonParseError"),
    codeOf("_ZN7QObject10startTimerEiN2Qt9TimerTypeE"),
    codeOf("_ZN24QAbstractEventDispatcher13registerTimerExN2Qt9TimerTypeEP7QObject"),
    codeOf("_ZN11QBasicTimer5startEiN2Qt9TimerTypeEP7QObject"),
};

/// Whether the program's own code has led to the caller, which is not so at the start of a thread,
/// and somebody may catch what is thrown.
bool isOnBehalfOfProgram(const void *caller)
{
    std::array<void *, 64> stack;
    void **const end = stack.data() + backtrace(stack.data(), int(stack.size()));
    void **const outside = std::find(stack.data(), end, caller);
    return std::any_of(outside, end, [](void *frame) { return program.contains(frame); }) &&
           std::none_of(outside, end, [](void *frame) { return contain(fragile, frame); });
}

bool isCounted(const void *caller)
{
    if (isArming != (countedThreads == Threads::OfThisThread))
        return false;
    if (countedRequests == Requests::OfTheProgram)
        return program.contains(caller);
    return contain(containers, caller) && isOnBehalfOfProgram(caller);
}

bool fails(const void *caller)
{
    if (!armed.load(std::memory_order_acquire) || !isCounted(caller) || left.fetch_sub(1) != 1)
        return false;
    armed = false;
    depth = backtrace(place.data(), int(place.size()));
    failed = true;
    return true;
}

void *allocate(size_t size)
{
#if defined(QTOVELMIXER_MALLOC_IS_TAKEN)
    return std::malloc(size > 0 ? size : 1);
#else
    return __libc_malloc(size > 0 ? size : 1);
#endif
}

void *allocateAligned(size_t size, size_t alignment)
{
    void *block = nullptr;
    return posix_memalign(&block, alignment, size > 0 ? size : 1) == 0 ? block : nullptr;
}

void *orThrow(void *block)
{
    if (!block)
        throw std::bad_alloc();
    return block;
}

} // namespace

AllocationFailure::AllocationFailure(quint64 number, Threads threads, Requests requests)
{
    // The first unwinding loads a library.
    backtrace(::place.data(), 1);
    countedThreads = threads;
    countedRequests = requests;
    isArming = true;
    failed = false;
    left = qint64(number);
    armed = number > 0;
}

AllocationFailure::~AllocationFailure()
{
    armed = false;
    isArming = false;
}

bool AllocationFailure::happened()
{
    return failed;
}

QString AllocationFailure::place()
{
    if (!failed)
        return QString();
    QStringList lines;
    char **const names = backtrace_symbols(::place.data(), depth);
    for (int i = 0; names && i < depth; ++i)
        lines << QString::fromLocal8Bit(names[i]);
    std::free(names);
    return lines.join(QLatin1Char('\n'));
}

#define CALLER __builtin_return_address(0)

void *operator new(size_t size)
{
    return orThrow(fails(CALLER) ? nullptr : allocate(size));
}

void *operator new[](size_t size)
{
    return orThrow(fails(CALLER) ? nullptr : allocate(size));
}

void *operator new(size_t size, const std::nothrow_t &) noexcept
{
    return fails(CALLER) ? nullptr : allocate(size);
}

void *operator new[](size_t size, const std::nothrow_t &) noexcept
{
    return fails(CALLER) ? nullptr : allocate(size);
}

void *operator new(size_t size, std::align_val_t alignment)
{
    return orThrow(fails(CALLER) ? nullptr : allocateAligned(size, size_t(alignment)));
}

void *operator new[](size_t size, std::align_val_t alignment)
{
    return orThrow(fails(CALLER) ? nullptr : allocateAligned(size, size_t(alignment)));
}

void *operator new(size_t size, std::align_val_t alignment, const std::nothrow_t &) noexcept
{
    return fails(CALLER) ? nullptr : allocateAligned(size, size_t(alignment));
}

void *operator new[](size_t size, std::align_val_t alignment, const std::nothrow_t &) noexcept
{
    return fails(CALLER) ? nullptr : allocateAligned(size, size_t(alignment));
}

void operator delete(void *block) noexcept
{
    std::free(block);
}

void operator delete[](void *block) noexcept
{
    std::free(block);
}

void operator delete(void *block, size_t) noexcept
{
    std::free(block);
}

void operator delete[](void *block, size_t) noexcept
{
    std::free(block);
}

void operator delete(void *block, const std::nothrow_t &) noexcept
{
    std::free(block);
}

void operator delete[](void *block, const std::nothrow_t &) noexcept
{
    std::free(block);
}

void operator delete(void *block, std::align_val_t, const std::nothrow_t &) noexcept
{
    std::free(block);
}

void operator delete[](void *block, std::align_val_t, const std::nothrow_t &) noexcept
{
    std::free(block);
}

void operator delete(void *block, std::align_val_t) noexcept
{
    std::free(block);
}

void operator delete[](void *block, std::align_val_t) noexcept
{
    std::free(block);
}

void operator delete(void *block, size_t, std::align_val_t) noexcept
{
    std::free(block);
}

void operator delete[](void *block, size_t, std::align_val_t) noexcept
{
    std::free(block);
}

#if !defined(QTOVELMIXER_MALLOC_IS_TAKEN)
extern "C" {

void *malloc(size_t size)
{
    if (!fails(CALLER))
        return __libc_malloc(size);
    errno = ENOMEM;
    return nullptr;
}

void *calloc(size_t count, size_t size)
{
    if (!fails(CALLER))
        return __libc_calloc(count, size);
    errno = ENOMEM;
    return nullptr;
}

void *realloc(void *block, size_t size)
{
    if (!fails(CALLER))
        return __libc_realloc(block, size);
    errno = ENOMEM;
    return nullptr;
}
}
#endif
