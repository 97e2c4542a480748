// SPDX-License-Identifier: MIT
// The last lines before a crash are those that matter.
#include <base/trace_writer_p.h>

#include <QtCore/QtGlobal>

#include <atomic>
#include <csignal>
#include <iterator>

namespace QTovelMixer {

namespace {
std::atomic<bool> isFlushing;

void flushOnce() noexcept
{
    if (!isFlushing.exchange(true)) {
        flushTraceInCrash();
        isFlushing.store(false);
    }
}

#if defined(Q_OS_UNIX)
constexpr int crashes[] = {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV};
struct sigaction before[std::size(crashes)];

/// What would have happened without us.
void passOn(const struct sigaction &action, int number, siginfo_t *info, void *context)
{
    if ((action.sa_flags & SA_SIGINFO) != 0) {
        action.sa_sigaction(number, info, context);
    } else if (action.sa_handler == SIG_DFL) {
        sigaction(number, &action, nullptr);
        // A faulty instruction runs again; what was sent has to be sent again.
        if (info->si_code <= 0)
            raise(number);
    } else if (action.sa_handler != SIG_IGN) {
        action.sa_handler(number);
    }
}

void onCrash(int number, siginfo_t *info, void *context)
{
    flushOnce();
    for (size_t i = 0; i < std::size(crashes); ++i) {
        if (crashes[i] == number)
            passOn(before[i], number, info, context);
    }
}
#else
void (*beforeAbort)(int) = SIG_DFL;

void onAbort(int number)
{
    flushOnce();
    std::signal(number, beforeAbort);
    if (beforeAbort != SIG_DFL && beforeAbort != SIG_IGN)
        beforeAbort(number);
}
#endif
} // namespace

void watchForCrashes()
{
#if defined(Q_OS_UNIX)
    struct sigaction action = {};
    action.sa_sigaction = onCrash;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    for (size_t i = 0; i < std::size(crashes); ++i) {
        sigaction(crashes[i], nullptr, &before[i]);
        sigaction(crashes[i], &action, nullptr);
    }
#else
    beforeAbort = std::signal(SIGABRT, onAbort);
#endif
}

} // namespace QTovelMixer
