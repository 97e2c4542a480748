// SPDX-License-Identifier: MIT
// What may keep the audio thread waiting: the update lock, and whoever holds it.
#include <mixer/engine/block_lock_p.h>

#include <base/log_line_p.h>
#include <base/thread_marks_p.h>
#include <base/trace_p.h>
#include <mixer/api/api_virtual.h>
#include <mixer/engine.h>
#include <support/log_capture.h>
#include <support/ramp_source.h>
#include <support/take_sink.h>

#include <QtCore/QDeadlineTimer>
#include <QtCore/QScopeGuard>
#include <QtCore/QSemaphore>
#include <QtCore/QThread>
#include <QtTest/QTest>

#include <atomic>
#include <cerrno>
#include <memory>

#if defined(Q_OS_LINUX)
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <QtCore/QFile>
#endif

using namespace QTovelMixer;

namespace {

constexpr int limit = 10000; // ms

/// A playing engine on a device of its own, whose blocks are counted.
class PlayingDesk
{
public:
    PlayingDesk()
        : api(new QTovelMixerApiVirtual(QTovelMixerApiVirtual::Pacing::RealTime)), engine(api)
    {
        api->plug({.name = "Speaker",
                   .inputChannels = 2,
                   .outputChannels = 2,
                   .defaultInput = true,
                   .defaultOutput = true});
        api->setOutputHandler([this](const float *, unsigned, unsigned, quint64) { ++blocks; });
        api->updateDeviceList();
        engine.activate();
        engine.setPauseMode(PauseSoft);
        source = new RampSource(&engine, 48000, 2, 1000.0);
        isPlaying = engine.addSource(source) && engine.start();
    }
    ~PlayingDesk() { engine.deactivate(); }
    Q_DISABLE_COPY_MOVE(PlayingDesk)

    QTovelMixerApiVirtual *api;
    std::atomic<int> blocks{0};
    Engine engine;
    RampSource *source;
    bool isPlaying;
};

/// A message handler that takes its time, as one whose reader does not read.
struct Handler
{
    enum Way { Slow, Blocked };

    static void handle(QtMsgType, const QMessageLogContext &, const QString &text)
    {
        const int before = *blocks;
        ++entered;
        const QDeadlineTimer end(limit);
        if (way == Blocked) {
            while (!released && !end.hasExpired())
                QThread::msleep(1);
        }
        while (*blocks < before + 3 && !end.hasExpired())
            QThread::msleep(1);
        if (*blocks < before + 3 && stalledBy.isEmpty())
            stalledBy = text;
    }

    static inline Way way = Slow;
    static inline std::atomic<int> *blocks = nullptr;
    static inline std::atomic<bool> released{false};
    static inline std::atomic<int> entered{0};
    static inline QString stalledBy; ///< read when all is written
};

/// What writes lines while the mix is changed.
void changeTheMix(Engine &engine)
{
    auto *second = new RampSource(&engine, 48000, 2, 1000.0);
    engine.addSource(second);
    auto *sink = new TakeSink(&engine, 48000, 2);
    engine.addSink(sink);
    engine.setGain(static_cast<Source *>(nullptr), 0, 0, 0.5f); // refused with a line
    engine.setGain(second, 7, 0, 0.5f);
    engine.setTime(1.0);
    engine.removeSource(static_cast<Source *>(nullptr));
    engine.removeSource(second);
    engine.deleteSink(sink);
}

#if defined(Q_OS_LINUX)
/// As the kernel sees it now: below 0 for threads of a real-time class.
int priorityOf(pid_t thread)
{
    QFile file(QStringLiteral("/proc/self/task/%1/stat").arg(thread));
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    const QByteArray line = file.readAll();
    const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 2).split(' ');
    return fields.value(15).toInt();
}
#endif

} // namespace

class tst_UpdateLock : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { Engine::Initialize(); }
    void lock_isRecursive_andKeepsOthersOut();
    void lock_letsLinesWait_untilTheLastUnlock();
    void block_countsAsAudio_onAnyThread();
    void owner_inheritsThePriority_ofWhoWaits();
    void blocks_goOn_whateverTheMessageHandlerDoes_data();
    void blocks_goOn_whateverTheMessageHandlerDoes();
    void lines_keepTheirOrder_acrossTheThreads();
};

void tst_UpdateLock::lock_isRecursive_andKeepsOthersOut()
{
    UpdateLock lock;
    const auto isFreeForOthers = [&lock] {
        bool free = false;
        const std::unique_ptr<QThread> other(QThread::create([&] {
            free = lock.tryLock();
            if (free)
                lock.unlock();
        }));
        other->start();
        other->wait();
        return free;
    };
    lock.lock();
    lock.lock();
    QVERIFY(lock.tryLock());
    QVERIFY(!isFreeForOthers());
    lock.unlock();
    lock.unlock();
    QVERIFY(!isFreeForOthers());
    lock.unlock();
    QVERIFY(isFreeForOthers());
}

void tst_UpdateLock::lock_letsLinesWait_untilTheLastUnlock()
{
    UpdateLock lock;
    const auto linesWait = [] { return ThreadMarks::isInside(ThreadMarks::LinesWait); };
    lock.lock();
    QVERIFY(lock.tryLock());
    lock.unlock();
    QVERIFY(linesWait());
    Handler::entered = 0;
    const QtMessageHandler before =
        qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &, const QString &text) {
            Handler::entered += type == QtWarningMsg && text == QLatin1String("No device 7");
        });
    const auto restore = qScopeGuard([before] { qInstallMessageHandler(before); });
    writeWarning("No device %d", 7);
    QCOMPARE(Handler::entered, 0);
    lock.unlock();
    QVERIFY(!linesWait());
    flushTrace();
    QCOMPARE(Handler::entered, 1);
}

void tst_UpdateLock::block_countsAsAudio_onAnyThread()
{
    UpdateLock lock;
    {
        const BlockLock block(lock, true, nullptr);
        QVERIFY(block.isLocked());
        QVERIFY(isAudioThread());
    }
    QVERIFY(!isAudioThread());
}

// Otherwise any thread of a middle priority would keep the owner from its processor, and the audio
// thread from the lock, for as long as it likes.
void tst_UpdateLock::owner_inheritsThePriority_ofWhoWaits()
{
    UpdateLock lock;
#if defined(Q_OS_UNIX)
    QVERIFY(lock.inheritsPriority());
#endif
#if defined(Q_OS_LINUX)
    sched_param priority = {};
    priority.sched_priority = 10;
    std::atomic<pid_t> owner{0};
    std::atomic<int> refusal{0};
    QSemaphore mayGo;
    QSemaphore mayEnd;
    const std::unique_ptr<QThread> holder(QThread::create([&] {
        lock.lock();
        owner = pid_t(syscall(SYS_gettid));
        mayGo.acquire();
        lock.unlock();
        mayEnd.acquire();
    }));
    const std::unique_ptr<QThread> waiter(QThread::create([&] {
        if (sched_setscheduler(0, SCHED_FIFO, &priority) != 0)
            refusal = errno;
        lock.lock();
        lock.unlock();
    }));
    holder->start();
    while (owner == 0)
        QThread::yieldCurrentThread();
    const int before = priorityOf(owner);
    waiter->start();
    const auto isOver = [&] { return priorityOf(owner) < 0 || refusal != 0; };
    const bool raised = QTest::qWaitFor(isOver, limit);
    mayGo.release();
    const bool ended = waiter->wait(limit);
    const bool lowered = QTest::qWaitFor([&] { return priorityOf(owner) == before; }, limit);
    mayEnd.release();
    QVERIFY(holder->wait(limit));
    if (refusal != 0)
        QSKIP("the system gives this user no real-time priority");
    QVERIFY(raised);
    QVERIFY(ended);
    QVERIFY(lowered);
#endif
}

void tst_UpdateLock::blocks_goOn_whateverTheMessageHandlerDoes_data()
{
    QTest::addColumn<int>("way");
    QTest::newRow("slow") << int(Handler::Slow);
    QTest::newRow("blocked") << int(Handler::Blocked);
}

void tst_UpdateLock::blocks_goOn_whateverTheMessageHandlerDoes()
{
    QFETCH(int, way);
    PlayingDesk playing;
    QVERIFY(playing.isPlaying);
    flushTrace();
    Handler::way = Handler::Way(way);
    Handler::blocks = &playing.blocks;
    Handler::released = false;
    Handler::entered = 0;
    Handler::stalledBy.clear();
    const QtMessageHandler previous = qInstallMessageHandler(&Handler::handle);
    changeTheMix(playing.engine);
    const int before = playing.blocks;
    const bool goesOn = QTest::qWaitFor([&] { return playing.blocks >= before + 20; }, limit);
    Handler::released = true;
    flushTrace();
    qInstallMessageHandler(previous);
    QVERIFY2(Handler::stalledBy.isEmpty(), qPrintable(Handler::stalledBy));
    QVERIFY(goesOn);
    QVERIFY(Handler::entered > 5);
}

void tst_UpdateLock::lines_keepTheirOrder_acrossTheThreads()
{
    PlayingDesk playing;
    QVERIFY(playing.isPlaying);
    LogCapture log;
    auto *second = new RampSource(&playing.engine, 48000, 2, 1000.0);
    QVERIFY(playing.engine.addSource(second));
    second->start(QThread::InheritPriority);
    QTRY_VERIFY(second->isRunning());
    second->stop(UserStopAction);
    const QString crashTrace = QStringLiteral("[TOVEL_DEBUG_MIXER_CRASH_TRACE] ");
    const auto removal = crashTrace + QStringLiteral("Engine::removeSource");
    QTRY_COMPARE(log.countStarting(removal), 1);
    QStringList seen;
    for (const QString &text : log.texts()) {
        for (const char *event :
             {"Engine::Data::startMixerApi BEGIN", "Engine::Data::startMixerApi END",
              "Source::run BEGIN", "Source::stop", "Source::run END", "Engine::removeSource"}) {
            if (text.startsWith(crashTrace + QLatin1String(event)))
                seen.append(QLatin1String(event));
        }
    }
    QCOMPARE(seen, QStringList({"Engine::Data::startMixerApi BEGIN",
                                "Engine::Data::startMixerApi END", "Source::run BEGIN",
                                "Source::stop", "Source::run END", "Engine::removeSource"}));
}

QTEST_GUILESS_MAIN(tst_UpdateLock)

#include "tst_update_lock.moc"
