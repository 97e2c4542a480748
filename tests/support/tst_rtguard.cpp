// SPDX-License-Identifier: MIT
#include <support/rtguard.h>

#include <QtCore/QElapsedTimer>
#include <QtCore/QMutex>
#include <QtCore/QSemaphore>
#include <QtCore/QString>
#include <QtCore/QThread>
#include <QtTest/QTest>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <mutex>

#include <unistd.h>

namespace {
constexpr int libraryCall = RealtimeGuard::seesLibraryCalls ? 1 : 0;
constexpr int systemCall = RealtimeGuard::seesSystemCalls ? 1 : 0;

// The compiler would leave out an allocation that nobody looks at.
void use(void *block)
{
    asm volatile("" : : "r"(block) : "memory");
}
} // namespace

class tst_RtGuard : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void guard_passes_cleanCode();
    void guard_passes_uncontendedQtLocks();
    void guard_counts_malloc();
    void guard_counts_free();
    void guard_counts_everyAllocator();
    void guard_counts_newAndDelete();
    void guard_counts_stringAppend();
    void guard_counts_sleep();
    void guard_counts_standardMutex();
    void guard_counts_contendedMutex();
    void guard_counts_everySystemCall();
    void systemCall_keepsItsResult_underGuard();
    void threadCreation_works_underGuard();
    void guard_counts_ownThreadOnly();
    void guards_nest();
    void exemption_letsCallsPass();
    void end_stopsCounting();
    void first_namesTheViolation();
};

void tst_RtGuard::init()
{
    RealtimeGuard::resetTotal();
}

void tst_RtGuard::guard_passes_cleanCode()
{
    float sum = 0.0f;
    float values[64];
    QElapsedTimer timer;
    RealtimeGuard guard;
    timer.start();
    for (int i = 0; i < 64; ++i)
        values[i] = std::sin(static_cast<float>(i));
    for (const float value : values)
        sum += value;
    const qint64 elapsed = timer.nsecsElapsed();
    const bool onThread = QThread::currentThread() == thread();
    guard.end();
    QVERIFY(elapsed >= 0 && onThread && std::isfinite(sum));
    QVERIFY2(guard.violations() == 0, qPrintable(RealtimeGuard::first()));
    QVERIFY(RealtimeGuard::first().isEmpty());
    QCOMPARE(RealtimeGuard::total(), 0);
}

void tst_RtGuard::guard_passes_uncontendedQtLocks()
{
    QMutex mutex;
    QRecursiveMutex recursive;
    QSemaphore semaphore;
    RealtimeGuard guard;
    for (int i = 0; i < 3; ++i) {
        mutex.lock();
        mutex.unlock();
        recursive.lock();
        recursive.lock();
        recursive.unlock();
        recursive.unlock();
        semaphore.release();
    }
    guard.end();
    QVERIFY2(guard.violations() == 0, qPrintable(RealtimeGuard::first()));
}

void tst_RtGuard::guard_counts_malloc()
{
    RealtimeGuard guard;
    void *const block = std::malloc(24);
    use(block);
    guard.end();
    std::free(block);
    QCOMPARE(guard.violations(), libraryCall);
}

void tst_RtGuard::guard_counts_free()
{
    void *const block = std::malloc(24);
    use(block);
    RealtimeGuard guard;
    std::free(block);
    std::free(nullptr);
    guard.end();
    QCOMPARE(guard.violations(), libraryCall);
}

void tst_RtGuard::guard_counts_everyAllocator()
{
    void *blocks[4] = {};
    RealtimeGuard guard;
    blocks[0] = std::calloc(3, 8);
    blocks[1] = std::aligned_alloc(64, 128);
    const int result = posix_memalign(&blocks[2], 64, 128);
    blocks[3] = std::realloc(nullptr, 8);
    guard.end();
    for (void *const block : blocks) {
        use(block);
        QVERIFY(block != nullptr);
        std::free(block);
    }
    QCOMPARE(result, 0);
    QCOMPARE(guard.violations(), 4 * libraryCall);
}

void tst_RtGuard::guard_counts_newAndDelete()
{
    RealtimeGuard guard;
    auto value = std::make_unique<int>(3);
    use(value.get());
    value.reset();
    guard.end();
    QCOMPARE(guard.violations(), 2 * libraryCall);
}

void tst_RtGuard::guard_counts_stringAppend()
{
    QString text = QStringLiteral("a literal detaches");
    RealtimeGuard guard;
    text.append(QLatin1Char('.'));
    guard.end();
    QCOMPARE(guard.violations() > 0, RealtimeGuard::seesLibraryCalls);
}

void tst_RtGuard::guard_counts_sleep()
{
    RealtimeGuard guard;
    usleep(1);
    guard.end();
    QCOMPARE(guard.violations(), systemCall);
}

void tst_RtGuard::guard_counts_standardMutex()
{
    std::mutex mutex;
    RealtimeGuard guard;
    mutex.lock();
    mutex.unlock();
    guard.end();
    QCOMPARE(guard.violations(), libraryCall);
}

void tst_RtGuard::guard_counts_contendedMutex()
{
    QRecursiveMutex mutex;
    QSemaphore waiting;
    int violations = 0;
    mutex.lock();
    const std::unique_ptr<QThread> contender(QThread::create([&] {
        waiting.release();
        RealtimeGuard guard;
        // Whoever holds the mutex lets go only after this try has failed in the kernel.
        const bool locked = mutex.tryLock(20);
        guard.end();
        violations = guard.violations();
        if (locked)
            mutex.unlock();
        waiting.release();
    }));
    contender->start();
    QVERIFY(waiting.tryAcquire(1, 10000));
    QVERIFY(waiting.tryAcquire(1, 10000));
    mutex.unlock();
    QVERIFY(contender->wait(10000));
    QCOMPARE(violations > 0, RealtimeGuard::seesSystemCalls);
}

void tst_RtGuard::guard_counts_everySystemCall()
{
    RealtimeGuard guard;
    for (int i = 0; i < 5; ++i)
        getppid();
    guard.end();
    getppid();
    QCOMPARE(guard.violations(), 5 * systemCall);
}

void tst_RtGuard::systemCall_keepsItsResult_underGuard()
{
    const pid_t parent = getppid();
    RealtimeGuard guard;
    const pid_t answer = getppid();
    errno = 0;
    const ssize_t written = write(-1, "", 1);
    const int error = errno;
    guard.end();
    QCOMPARE(answer, parent);
    QCOMPARE(written, ssize_t(-1));
    QCOMPARE(error, EBADF);
}

void tst_RtGuard::threadCreation_works_underGuard()
{
    std::atomic<bool> ran{false};
    std::unique_ptr<QThread> worker;
    RealtimeGuard guard;
    worker.reset(QThread::create([&] { ran = true; }));
    worker->start();
    const bool ended = worker->wait(10000);
    guard.end();
    QVERIFY(ended);
    QVERIFY(ran);
    QCOMPARE(guard.violations() > 0,
             RealtimeGuard::seesLibraryCalls || RealtimeGuard::seesSystemCalls);
}

void tst_RtGuard::guard_counts_ownThreadOnly()
{
    QSemaphore go;
    QSemaphore done;
    const std::unique_ptr<QThread> other(QThread::create([&] {
        go.acquire();
        for (int i = 0; i < 100; ++i) {
            std::free(std::malloc(100));
            getppid();
        }
        done.release();
    }));
    other->start();
    {
        RealtimeGuard guard;
        RealtimeGuardExemption exemption;
        go.release();
        const bool finished = done.tryAcquire(1, 10000);
        QVERIFY(finished);
        QCOMPARE(guard.violations(), 0);
    }
    QVERIFY(other->wait(10000));
    QCOMPARE(RealtimeGuard::total(), 0);
}

void tst_RtGuard::guards_nest()
{
    RealtimeGuard outer;
    getppid();
    int inside = 0;
    {
        RealtimeGuard inner;
        getppid();
        getppid();
        inside = inner.violations();
    }
    getppid();
    outer.end();
    QCOMPARE(inside, 2 * systemCall);
    QCOMPARE(outer.violations(), 4 * systemCall);
    QCOMPARE(RealtimeGuard::total(), 4 * systemCall);
}

void tst_RtGuard::exemption_letsCallsPass()
{
    RealtimeGuard guard;
    {
        RealtimeGuardExemption exemption;
        {
            RealtimeGuardExemption inner;
            getppid();
        }
        getppid();
        std::free(std::malloc(8));
    }
    getppid();
    guard.end();
    QCOMPARE(guard.violations(), systemCall);
}

void tst_RtGuard::end_stopsCounting()
{
    RealtimeGuard guard;
    guard.end();
    getppid();
    std::free(std::malloc(8));
    guard.end();
    QCOMPARE(guard.violations(), 0);
}

void tst_RtGuard::first_namesTheViolation()
{
    RealtimeGuard guard;
    usleep(1);
    getppid();
    guard.end();
    QCOMPARE(RealtimeGuard::first().startsWith(QStringLiteral("system call clock_nanosleep (230)")),
             RealtimeGuard::seesSystemCalls);
}

QTEST_GUILESS_MAIN(tst_RtGuard)
#include "tst_rtguard.moc"
