// SPDX-License-Identifier: MIT
#include <support/rtguard_p.h>

#include <atomic>

#if defined(__GLIBC__)
#include <cxxabi.h>
#include <dlfcn.h>
#include <execinfo.h>

#include <cstdlib>
#endif

namespace {
thread_local int guards = 0;
thread_local int exemptions = 0;
thread_local int violationsOfThread = 0;

constexpr int maxFrames = 32;

struct Finding
{
    const char *what = nullptr;
    long number = 0;
    void *frames[maxFrames] = {};
    int depth = 0;
};

std::atomic<int> totalViolations{0};
std::atomic<int> findings{0}; // claims the one place below
std::atomic<bool> findingComplete{false};
Finding finding;

#if defined(__GLIBC__)
// The first unwinding loads a library and allocates.
[[maybe_unused]] const int warmUp = [] {
    void *frame = nullptr;
    return backtrace(&frame, 1);
}();

QString describe(void *address)
{
    Dl_info info;
    if (!dladdr(address, &info) || !info.dli_fname)
        return QStringLiteral("?");
    const auto offset =
        static_cast<qulonglong>(static_cast<char *>(address) - static_cast<char *>(info.dli_fbase));
    QString text =
        QStringLiteral("%1+0x%2").arg(QString::fromLocal8Bit(info.dli_fname)).arg(offset, 0, 16);
    if (info.dli_sname) {
        int status = 0;
        char *const name = abi::__cxa_demangle(info.dli_sname, nullptr, nullptr, &status);
        text += QStringLiteral(" ") + QString::fromLatin1(status == 0 ? name : info.dli_sname);
        std::free(name);
    }
    return text;
}
#endif

void watch()
{
    if (RealtimeWatch::isOn())
        RealtimeWatch::watchSystemCalls();
}
} // namespace

bool RealtimeWatch::isOn()
{
    return guards > 0 && exemptions == 0;
}

void RealtimeWatch::report(const char *what, long number)
{
    ++violationsOfThread;
    totalViolations.fetch_add(1, std::memory_order_relaxed);
    if (findings.fetch_add(1, std::memory_order_relaxed) != 0)
        return;
    finding.what = what;
    finding.number = number;
#if defined(__GLIBC__)
    ++exemptions;
    finding.depth = backtrace(finding.frames, maxFrames);
    --exemptions;
#endif
    findingComplete.store(true, std::memory_order_release);
}

RealtimeGuard::RealtimeGuard() : before(violationsOfThread)
{
    ++guards;
    watch();
}

RealtimeGuard::~RealtimeGuard()
{
    end();
}

void RealtimeGuard::end()
{
    if (ended)
        return;
    ended = true;
    counted = violationsOfThread - before;
    --guards;
    if (!RealtimeWatch::isOn())
        RealtimeWatch::ignoreSystemCalls();
}

int RealtimeGuard::violations() const
{
    return ended ? counted : violationsOfThread - before;
}

int RealtimeGuard::total()
{
    return totalViolations.load(std::memory_order_relaxed);
}

void RealtimeGuard::resetTotal()
{
    totalViolations.store(0, std::memory_order_relaxed);
    findingComplete.store(false, std::memory_order_relaxed);
    findings.store(0, std::memory_order_release);
}

QString RealtimeGuard::first()
{
    if (!findingComplete.load(std::memory_order_acquire))
        return QString();
    QString text = QStringLiteral("%1 (%2)").arg(QLatin1String(finding.what)).arg(finding.number);
#if defined(__GLIBC__)
    for (int i = 0; i < finding.depth; ++i)
        text += QStringLiteral("\n    ") + describe(finding.frames[i]);
#endif
    return text;
}

RealtimeGuardExemption::RealtimeGuardExemption()
{
    if (RealtimeWatch::isOn())
        RealtimeWatch::ignoreSystemCalls();
    ++exemptions;
}

RealtimeGuardExemption::~RealtimeGuardExemption()
{
    --exemptions;
    watch();
}
