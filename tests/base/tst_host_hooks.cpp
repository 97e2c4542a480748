// SPDX-License-Identifier: MIT
// A host's own definitions take the place of the library's.
#include <base/debug.h>
#include <base/ringbuffer.h>
#include <base/thread.h>

#include <QtTest/QTest>

#include <cstdarg>
#include <cstdio>

#include <sys/resource.h>

namespace {
int errors = 0;
int lastCode = 0;
char lastText[256];

// Lets the process grow by no more than a little while it lives.
class MemoryLimit
{
public:
    MemoryLimit()
    {
        getrlimit(RLIMIT_AS, &before);
        unsigned long pages = 0;
        if (std::FILE *const file = std::fopen("/proc/self/statm", "r")) {
            if (std::fscanf(file, "%lu", &pages) != 1)
                pages = 0;
            std::fclose(file);
        }
        rlimit limit = before;
        limit.rlim_cur = rlim_t(pages) * 4096 + (rlim_t(64) << 20);
        setrlimit(RLIMIT_AS, &limit);
    }
    ~MemoryLimit() { setrlimit(RLIMIT_AS, &before); }
    Q_DISABLE_COPY_MOVE(MemoryLimit)

private:
    rlimit before;
};
} // namespace

extern "C" {
const char *__asan_default_options()
{
    return "allocator_may_return_null=1";
}

const char *__tsan_default_options()
{
    return "allocator_may_return_null=1";
}

void BLDEBUG_Error(int code, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(lastText, sizeof(lastText), format, arguments);
    va_end(arguments);
    lastCode = code;
    ++errors;
}

bool BLTHREAD_IsRunningInMainThread(void)
{
    return false;
}
}

class tst_HostHooks : public QObject
{
    Q_OBJECT

private slots:
    void error_reachesTheHost_fromInsideTheLibrary();
    void isRunningInMainThread_asksTheHost();
};

void tst_HostHooks::error_reachesTheHost_fromInsideTheLibrary()
{
    BLRINGBUFFER *ring = nullptr;
    {
        MemoryLimit limit;
        ring = BLRINGBUFFER_NewEx(1 << 30, 1);
    }
    QVERIFY(!ring);
    QCOMPARE(errors, 1);
    QCOMPARE(lastCode, -1);
    QCOMPARE(QString::fromLatin1(lastText),
             QStringLiteral("BLRINGBUFFER_NewEx: Out of memory (1073741824)!!"));
}

void tst_HostHooks::isRunningInMainThread_asksTheHost()
{
    QVERIFY(!BLTHREAD_IsRunningInMainThread());
}

QTEST_GUILESS_MAIN(tst_HostHooks)
#include "tst_host_hooks.moc"
