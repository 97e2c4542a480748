// SPDX-License-Identifier: MIT
// System calls are sent back to us by the kernel ("syscall user dispatch"): while the thread's
// selector says so, each one raises SIGSYS instead, also those that the C library or Qt make with
// instructions of their own. The handler counts it and makes the call.
#include <support/rtguard_p.h>

#if QTOVELMIXER_GUARD_SYSTEM_CALLS

#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#ifndef PR_SET_SYSCALL_USER_DISPATCH
#define PR_SET_SYSCALL_USER_DISPATCH 59
#define PR_SYS_DISPATCH_OFF 0
#define PR_SYS_DISPATCH_ON 1
#endif

namespace {
constexpr char allow = 0;
constexpr char block = 1;
constexpr size_t restorerLength = 16; // the return from a handler is one instruction in there

// Only this thread and its signal handler read and write it, and the kernel.
thread_local volatile char selector = allow;

struct Name
{
    long number;
    const char *text;
};

constexpr Name names[] = {
    {SYS_read, "system call read"},
    {SYS_write, "system call write"},
    {SYS_futex, "system call futex"},
    {SYS_mmap, "system call mmap"},
    {SYS_munmap, "system call munmap"},
    {SYS_mprotect, "system call mprotect"},
    {SYS_madvise, "system call madvise"},
    {SYS_brk, "system call brk"},
    {SYS_openat, "system call openat"},
    {SYS_poll, "system call poll"},
    {SYS_ppoll, "system call ppoll"},
    {SYS_nanosleep, "system call nanosleep"},
    {SYS_clock_nanosleep, "system call clock_nanosleep"},
    {SYS_clock_gettime, "system call clock_gettime"},
    {SYS_sched_yield, "system call sched_yield"},
    {SYS_gettid, "system call gettid"},
    {SYS_getpid, "system call getpid"},
};

const char *nameOf(long number)
{
    for (const Name &name : names) {
        if (name.number == number)
            return name.text;
    }
    return "system call";
}

// Calls that cannot be made from inside a handler, since they change what the handler's return puts
// back, or return twice.
bool mustRunOutside(long number)
{
    switch (number) {
    case SYS_clone:
    case SYS_clone3:
    case SYS_fork:
    case SYS_vfork:
    case SYS_rt_sigprocmask:
    case SYS_rt_sigreturn:
    case SYS_sigaltstack:
        return true;
    default:
        return false;
    }
}

long makeCall(const greg_t *registers)
{
    long result = registers[REG_RAX];
    register long r10 asm("r10") = registers[REG_R10];
    register long r8 asm("r8") = registers[REG_R8];
    register long r9 asm("r9") = registers[REG_R9];
    asm volatile("syscall"
                 : "+a"(result)
                 : "D"(registers[REG_RDI]), "S"(registers[REG_RSI]), "d"(registers[REG_RDX]),
                   "r"(r10), "r"(r8), "r"(r9)
                 : "rcx", "r11", "memory");
    return result;
}

void onSystemCall(int, siginfo_t *info, void *context)
{
    selector = allow;
    greg_t *const registers = static_cast<ucontext_t *>(context)->uc_mcontext.gregs;
    RealtimeWatch::report(nameOf(info->si_syscall), info->si_syscall);
    registers[REG_RAX] = info->si_syscall;
    if (mustRunOutside(info->si_syscall)) {
        registers[REG_RIP] -= 2; // once more, and for the rest of the scope nothing is counted
        return;
    }
    registers[REG_RAX] = makeCall(registers);
    selector = block;
}

// The kernel's view of an action, which shows the restorer that the C library adds.
struct KernelAction
{
    void (*handler)(int, siginfo_t *, void *);
    unsigned long flags;
    uintptr_t restorer;
    uint64_t mask;
};

uintptr_t installHandler()
{
    struct sigaction action = {};
    action.sa_sigaction = onSystemCall;
    action.sa_flags = SA_SIGINFO | SA_NODEFER;
    KernelAction installed = {};
    if (sigaction(SIGSYS, &action, nullptr) != 0 ||
        syscall(SYS_rt_sigaction, SIGSYS, nullptr, &installed, sizeof(installed.mask)) != 0) {
        std::perror("rtguard: SIGSYS");
        std::abort();
    }
    return installed.restorer;
}
} // namespace

void RealtimeWatch::watchSystemCalls()
{
    if (selector == block)
        return;
    static const uintptr_t restorer = installHandler();
    if (prctl(PR_SET_SYSCALL_USER_DISPATCH, PR_SYS_DISPATCH_ON, restorer, restorerLength,
              &selector) != 0) {
        std::perror("rtguard: the kernel cannot send system calls back (needs Linux 5.11)");
        std::abort();
    }
    selector = block;
}

void RealtimeWatch::ignoreSystemCalls()
{
    selector = allow;
    prctl(PR_SET_SYSCALL_USER_DISPATCH, PR_SYS_DISPATCH_OFF, 0, 0, 0);
}

#else

void RealtimeWatch::watchSystemCalls() {}

void RealtimeWatch::ignoreSystemCalls() {}

#endif
