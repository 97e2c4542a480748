// SPDX-License-Identifier: MIT
#include <base/trace_p.h>

#include <base/log_line_p.h>
#include <base/thread_marks_p.h>
#include <base/trace_queue_p.h>
#include <support/log_capture.h>
#include <support/rtguard.h>

#include <QtCore/QProcess>
#include <QtCore/QSemaphore>
#include <QtCore/QThread>
#include <QtTest/QTest>

#include <atomic>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <memory>
#include <vector>

#if defined(Q_OS_UNIX)
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

using namespace QTovelMixer;

namespace {
const QString prefix = QStringLiteral("[TOVEL_DEBUG_MIXER_CRASH_TRACE] ");
constexpr int audioCapacity = 2048 - 256; // the rest is for other threads

// Runs as an audio thread and waits for its end.
template <typename Work>
void onAudioThread(Work work)
{
    const std::unique_ptr<QThread> thread(QThread::create([&] {
        const AudioThreadMark mark;
        work();
    }));
    thread->start();
    QVERIFY(thread->wait(60000));
}

// A message handler that keeps the writing thread inside its first line.
QSemaphore handlerEntered;
QSemaphore handlerMayGo;
QAtomicInt handlerHolds = 0;
QtMessageHandler handlerBehind = nullptr;

void holdingHandler(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    if (handlerHolds.testAndSetOrdered(1, 0)) {
        handlerEntered.release();
        handlerMayGo.acquire();
    }
    handlerBehind(type, context, text);
}

void flushingHandler(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    flushTrace();
    handlerBehind(type, context, text);
}

std::atomic<Qt::HANDLE> writerThread{nullptr};
std::atomic<Qt::HANDLE> audioThread{nullptr};

void rememberingHandler(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    writerThread = QThread::currentThreadId();
    handlerBehind(type, context, text);
}

// The modes below run as programs of their own.

int endBlocked()
{
    prepareTrace();
    handlerHolds.storeRelease(1);
    handlerBehind = [](QtMsgType, const QMessageLogContext &, const QString &) {};
    qInstallMessageHandler(holdingHandler);
    const AudioThreadMark mark;
    TraceLine("Test::first");
    const bool entered = handlerEntered.tryAcquire(1, 10000);
    TraceLine("Test::second");
    return entered ? 0 : 1;
}

void queueTen()
{
    const AudioThreadMark mark;
    for (int i = 0; i < 10; ++i)
        TraceLine("Test::crash").item("number", i);
}

void crash(const char *way)
{
#if defined(Q_OS_UNIX)
    const rlimit noCore = {0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
#endif
    if (qstrcmp(way, "own") == 0) {
        std::signal(SIGABRT, [](int number) {
            std::fputs("own\n", stderr);
            std::signal(number, SIG_DFL);
            std::raise(number);
        });
    }
    prepareTrace();
    if (qstrcmp(way, "handler") == 0) {
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {
            std::fputs("inside\n", stderr);
            queueTen();
            std::abort();
        });
        ThreadMarks::enter(ThreadMarks::LinesWait);
        TraceLine("Test::handler");
        QSemaphore().acquire(); // the writing thread ends us
    }
    queueTen();
    if (qstrcmp(way, "fault") == 0)
        std::raise(SIGSEGV);
    std::abort();
}

#if defined(Q_OS_UNIX)
// A child of a process that plays, as `system` and desktop helpers make them, ends.
int forkChild()
{
    prepareTrace();
    handlerHolds.storeRelease(1);
    QtMessageHandler original = qInstallMessageHandler(holdingHandler);
    handlerBehind = original;
    int status = -1;
    {
        const AudioThreadMark mark;
        TraceLine("Test::parent"); // is being written when the child begins
        if (!handlerEntered.tryAcquire(1, 10000))
            return 1;
        TraceLine("Test::behind");
    }
    const pid_t child = fork();
    if (child == 0) {
        TraceLine("Test::child");
        exit(0);
    }
    // A limit, so that a child that never ends is not left behind.
    for (int i = 0; i < 1000 && waitpid(child, &status, WNOHANG) == 0; ++i)
        QThread::msleep(10);
    if (status != 0)
        kill(child, SIGKILL);
    handlerMayGo.release();
    flushTrace();
    return status == 0 ? 0 : 2;
}
#endif

int leaveLinesQueued()
{
    prepareTrace();
    const AudioThreadMark mark;
    for (int i = 0; i < 100; ++i)
        TraceLine("Test::leave").item("number", i);
    return 0;
}
} // namespace

class tst_Trace : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { prepareTrace(); }
    void line_isOneInformationMessage();
    void item_isWritten_byItsType();
    void line_isWrittenAtOnce_onOrdinaryThreads();
    void line_isQueued_onAudioThreads();
    void queuedLine_isWritten_byAnotherThread();
    void mark_nests();
    void mark_belongsToItsThread();
    void queuedLines_keepTheirOrder();
    void queuedLines_areComplete_fromSeveralThreads();
    void queuedLine_isWritten_withoutFlush();
    void lostLines_areCountedAndLogged();
    void lines_areInOrder_andAccountedFor_underLoad();
    void audioSide_isRealTimeSafe();
    void audioSide_isRealTimeSafe_whenTheQueueIsFull();
    void flush_returns_insideAMessageHandler();
    void line_waits_duringAChangeOfTheMix();
    void line_waitsBehindThoseInTheQueue();
    void longText_isWrittenWhole_fromTheQueue();
    void line_ofAMessageHandler_followsThatOfTheQueue();
    void queuedLines_areWritten_atTheEndOfTheProcess();
    void end_doesNotWait_forABlockedMessageHandler();
    void queuedLines_areWritten_whenTheProcessCrashes_data();
    void queuedLines_areWritten_whenTheProcessCrashes();
    void forkedChild_ends_andLeavesTheLinesToItsParent();
    void queue_givesBackWhatWasPushed_overManyRounds();
    void queue_refuses_whenFull();
};

void tst_Trace::line_isOneInformationMessage()
{
    LogCapture log;
    {
        TraceLine line("Engine::removeSource");
        line.item("sources", 3).item("sinks", 0);
        QCOMPARE(log.count(), 0);
    }
    TraceLine("RtAudio::stop END");
    QCOMPARE(log.texts(QtInfoMsg), QStringList({prefix + "Engine::removeSource sources=3 sinks=0",
                                                prefix + "RtAudio::stop END"}));
    QCOMPARE(log.count(), 2);
}

void tst_Trace::item_isWritten_byItsType()
{
    using Limits = std::numeric_limits<qint64>;
    LogCapture log;
    TraceLine("A").item("yes", true).item("no", false);
    TraceLine("B").item("i", -7).item("u", 4000000000u).item("l", -5L).item("ul", 6UL);
    TraceLine("C").item("min", Limits::min()).item("max", std::numeric_limits<quint64>::max());
    TraceLine("D")
        .item("zero", 0.0)
        .item("third", -1.0 / 3.0)
        .item("large", 1e10)
        .item("round", 48000.0);
    TraceLine("E").item("nan", -std::nan("")).item("inf", -std::numeric_limits<double>::infinity());
    TraceLine("F")
        .item("null", static_cast<const void *>(nullptr))
        .item("pointer", reinterpret_cast<void *>(quintptr{0xbeef10}));
    QCOMPARE(log.texts(),
             QStringList({prefix + "A yes=true no=false", prefix + "B i=-7 u=4000000000 l=-5 ul=6",
                          prefix + "C min=-9223372036854775808 max=18446744073709551615",
                          prefix + "D zero=0 third=-0.333333 large=1e+10 round=48000",
                          prefix + "E nan=nan inf=-inf", prefix + "F null=0x0 pointer=0xbeef10"}));
}

void tst_Trace::line_isWrittenAtOnce_onOrdinaryThreads()
{
    LogCapture log;
    handlerBehind = qInstallMessageHandler(rememberingHandler);
    bool byItself = false;
    const std::unique_ptr<QThread> thread(QThread::create([&] {
        writerThread = nullptr;
        TraceLine("Source::run BEGIN").item("channels", 2);
        byItself = writerThread == QThread::currentThreadId();
    }));
    thread->start();
    QVERIFY(thread->wait(10000));
    qInstallMessageHandler(handlerBehind);
    QVERIFY(byItself);
    QCOMPARE(log.texts(), QStringList(prefix + "Source::run BEGIN channels=2"));
}

void tst_Trace::line_isQueued_onAudioThreads()
{
    LogCapture log;
    onAudioThread([] {
        TraceLine("Source::mixer_callback early-return")
            .item("isRunning", false)
            .item("mixerFrame", qint64{512});
    });
    flushTrace();
    const QStringList expected(
        prefix + "Source::mixer_callback early-return isRunning=false mixerFrame=512");
    QCOMPARE(log.texts(QtInfoMsg), expected);
    QCOMPARE(log.count(), 1);
}

void tst_Trace::queuedLine_isWritten_byAnotherThread()
{
    writerThread = nullptr;
    audioThread = nullptr;
    LogCapture log;
    handlerBehind = qInstallMessageHandler(rememberingHandler);
    onAudioThread([] {
        audioThread = QThread::currentThreadId();
        TraceLine("Test::where");
    });
    flushTrace();
    qInstallMessageHandler(handlerBehind);
    QCOMPARE(log.count(), 1);
    QVERIFY(writerThread != nullptr);
    QVERIFY(writerThread != audioThread);
}

void tst_Trace::mark_nests()
{
    QVERIFY(!isAudioThread());
    {
        const AudioThreadMark outer;
        QVERIFY(isAudioThread());
        {
            const AudioThreadMark inner;
            QVERIFY(isAudioThread());
        }
        QVERIFY(isAudioThread());
    }
    QVERIFY(!isAudioThread());
}

void tst_Trace::mark_belongsToItsThread()
{
    const AudioThreadMark mark;
    bool other = true;
    const std::unique_ptr<QThread> thread(QThread::create([&] { other = isAudioThread(); }));
    thread->start();
    QVERIFY(thread->wait(10000));
    QVERIFY(!other);
}

void tst_Trace::queuedLines_keepTheirOrder()
{
    LogCapture log;
    QStringList expected;
    for (int i = 0; i < 1000; ++i)
        expected.append(prefix + QStringLiteral("Test::order number=%1").arg(i));
    onAudioThread([] {
        for (int i = 0; i < 1000; ++i)
            TraceLine("Test::order").item("number", i);
    });
    flushTrace();
    QCOMPARE(log.texts(), expected);
}

void tst_Trace::queuedLines_areComplete_fromSeveralThreads()
{
    constexpr int threads = 4;
    constexpr int lines = 400; // all of them fit into the queue
    LogCapture log;
    std::vector<std::unique_ptr<QThread>> running;
    for (int t = 0; t < threads; ++t) {
        running.emplace_back(QThread::create([t] {
            const AudioThreadMark mark;
            for (int i = 0; i < lines; ++i)
                TraceLine("Test::many").item("thread", t).item("number", i);
        }));
    }
    for (const auto &thread : running)
        thread->start();
    for (const auto &thread : running)
        QVERIFY(thread->wait(60000));
    flushTrace();
    const QStringList all = log.texts();
    QCOMPARE(all.size(), threads * lines);
    for (int t = 0; t < threads; ++t) {
        const QString beginning = prefix + QStringLiteral("Test::many thread=%1 ").arg(t);
        int number = 0;
        for (const QString &text : all) {
            if (text.startsWith(beginning))
                QCOMPARE(text, beginning + QStringLiteral("number=%1").arg(number++));
        }
        QCOMPARE(number, lines);
    }
}

void tst_Trace::queuedLine_isWritten_withoutFlush()
{
    LogCapture log;
    onAudioThread([] { TraceLine("Test::poll"); });
    QTRY_COMPARE(log.texts(), QStringList(prefix + "Test::poll"));
}

void tst_Trace::lostLines_areCountedAndLogged()
{
    constexpr int tooMany = 37;
    LogCapture log;
    handlerHolds.storeRelease(1);
    handlerBehind = qInstallMessageHandler(holdingHandler);
    onAudioThread([] { TraceLine("Test::first"); });
    // The first line has left the queue and keeps the writing thread: the whole queue is free.
    const bool entered = handlerEntered.tryAcquire(1, 10000);
    onAudioThread([] {
        for (int i = 0; i < audioCapacity + tooMany; ++i)
            TraceLine("Test::flood").item("number", i);
    });
    const int others = int(TraceQueue::capacity) - audioCapacity;
    {
        // Other threads find room where audio threads no longer do.
        ThreadMarks::enter(ThreadMarks::LinesWait);
        for (int i = 0; i < others + 5; ++i)
            writeText(QtInfoMsg, "other");
        ThreadMarks::leave(ThreadMarks::LinesWait);
    }
    handlerMayGo.release();
    flushTrace();
    qInstallMessageHandler(handlerBehind);

    QVERIFY(entered);
    const QStringList texts = log.texts(QtInfoMsg);
    QCOMPARE(texts.size(), 1 + audioCapacity + others + 1);
    for (int i = 0; i < audioCapacity; ++i)
        QCOMPARE(texts[1 + i], prefix + QStringLiteral("Test::flood number=%1").arg(i));
    QCOMPARE(texts.count(QStringLiteral("other")), others);
    QCOMPARE(texts.last(), prefix + QStringLiteral("Trace overflow lost=42"));
}

// Faster than any log can be written, beside a thread that writes lines of its own.
void tst_Trace::lines_areInOrder_andAccountedFor_underLoad()
{
    constexpr int lines = 200000;
    LogCapture log;
    std::atomic<bool> over{false};
    const std::unique_ptr<QThread> ordinary(QThread::create([&over] {
        while (!over)
            TraceLine("Test::ordinary");
    }));
    ordinary->start();
    int violations = -1;
    onAudioThread([&violations] {
        RealtimeGuard guard;
        for (int i = 0; i < lines; ++i)
            TraceLine("Test::load").item("number", i);
        guard.end();
        violations = guard.violations();
    });
    over = true;
    QVERIFY(ordinary->wait(60000));
    flushTrace();

    QVERIFY2(violations == 0, qPrintable(RealtimeGuard::first()));
    const QString beginning = prefix + QStringLiteral("Test::load number=");
    const QString loss = prefix + QStringLiteral("Trace overflow lost=");
    int seen = 0;
    int lost = 0;
    int last = -1;
    for (const QString &text : log.texts()) {
        if (text.startsWith(beginning)) {
            const int number = text.mid(beginning.size()).toInt();
            QVERIFY2(number > last, qPrintable(text));
            last = number;
            ++seen;
        } else if (text.startsWith(loss)) {
            lost += text.mid(loss.size()).toInt();
        } else {
            QCOMPARE(text, prefix + QStringLiteral("Test::ordinary"));
        }
    }
    QVERIFY(seen > 0); // how many depends on the other thread, whose lines take room as well
    QCOMPARE(seen + lost, lines);
}

void tst_Trace::audioSide_isRealTimeSafe()
{
    LogCapture log;
    int violations = -1;
    onAudioThread([&] {
        RealtimeGuard guard;
        const AudioThreadMark mark;
        for (int i = 0; i < 100; ++i) {
            TraceLine("Sink::mixer_callback frame-offset")
                .item("sink", &violations)
                .item("frame_offset", i)
                .item("mixer_time", 0.25)
                .item("late", i > 50);
        }
        guard.end();
        violations = guard.violations();
    });
    QVERIFY2(violations == 0, qPrintable(RealtimeGuard::first()));
    flushTrace();
    QCOMPARE(log.count(), 100);
}

void tst_Trace::audioSide_isRealTimeSafe_whenTheQueueIsFull()
{
    LogCapture log;
    int violations = -1;
    onAudioThread([&] {
        RealtimeGuard guard;
        for (int i = 0; i < 3 * int(TraceQueue::capacity); ++i)
            TraceLine("Test::flood").item("number", i);
        guard.end();
        violations = guard.violations();
    });
    QVERIFY2(violations == 0, qPrintable(RealtimeGuard::first()));
    flushTrace();
    QVERIFY(log.count() >= audioCapacity);
}

void tst_Trace::flush_returns_insideAMessageHandler()
{
    LogCapture log;
    handlerBehind = qInstallMessageHandler(flushingHandler);
    onAudioThread([] {
        for (int i = 0; i < 10; ++i)
            TraceLine("Test::handler");
    });
    flushTrace();
    qInstallMessageHandler(handlerBehind);
    QCOMPARE(log.count(), 10);
}

// Whoever changes the mix keeps the audio thread waiting: no message handler may run then.
void tst_Trace::line_waits_duringAChangeOfTheMix()
{
    LogCapture log;
    handlerBehind = qInstallMessageHandler(rememberingHandler);
    writerThread = nullptr;
    QStringList expected;
    ThreadMarks::enter(ThreadMarks::LinesWait);
    for (int i = 0; i < 20; ++i) {
        TraceLine("Test::change").item("number", i);
        writeText(QtWarningMsg, "Test text");
        expected << prefix + QStringLiteral("Test::change number=%1").arg(i)
                 << QStringLiteral("Test text");
    }
    QTRY_COMPARE(log.texts(), expected);
    ThreadMarks::leave(ThreadMarks::LinesWait);
    qInstallMessageHandler(handlerBehind);
    QVERIFY(writerThread != nullptr);
    QCOMPARE(log.count(QtWarningMsg, QStringLiteral("Test text")), 20);
}

// What caused what stays visible: nothing overtakes a line that somebody has queued before.
void tst_Trace::line_waitsBehindThoseInTheQueue()
{
    LogCapture log;
    handlerHolds.storeRelease(1);
    handlerBehind = qInstallMessageHandler(holdingHandler);
    onAudioThread([] { TraceLine("Test::first"); });
    const bool entered = handlerEntered.tryAcquire(1, 10000);
    TraceLine("Test::second");
    const std::unique_ptr<QThread> other(
        QThread::create([] { writeText(QtCriticalMsg, "Test third"); }));
    other->start();
    const bool ended = other->wait(10000);
    handlerMayGo.release();
    flushTrace();
    qInstallMessageHandler(handlerBehind);
    QVERIFY(entered);
    QVERIFY(ended);
    QCOMPARE(log.texts(), QStringList({prefix + "Test::first", prefix + "Test::second",
                                       QStringLiteral("Test third")}));
}

void tst_Trace::longText_isWrittenWhole_fromTheQueue()
{
    LogCapture log;
    const QByteArray text(5000, 'x');
    ThreadMarks::enter(ThreadMarks::LinesWait);
    writeText(QtInfoMsg, text.constData());
    ThreadMarks::leave(ThreadMarks::LinesWait);
    QCOMPARE(log.texts(QtInfoMsg), QStringList(QString::fromLatin1(text)));
}

void tst_Trace::line_ofAMessageHandler_followsThatOfTheQueue()
{
    LogCapture log;
    handlerBehind = qInstallMessageHandler(
        [](QtMsgType type, const QMessageLogContext &context, const QString &text) {
            if (text.endsWith(QLatin1String("Test::queued")))
                TraceLine("Test::nested");
            handlerBehind(type, context, text);
        });
    onAudioThread([] { TraceLine("Test::queued"); });
    const QStringList expected({prefix + "Test::queued", prefix + "Test::nested"});
    QTRY_COMPARE(log.texts(), expected);
    qInstallMessageHandler(handlerBehind);
}

void tst_Trace::queuedLines_areWritten_atTheEndOfTheProcess()
{
    QProcess process;
    process.start(QCoreApplication::applicationFilePath(),
                  {QStringLiteral("--leave-lines-queued")});
    QVERIFY(process.waitForFinished(60000));
    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(process.exitCode(), 0);
    QByteArray expected;
    for (int i = 0; i < 100; ++i)
        expected += prefix.toLatin1() + "Test::leave number=" + QByteArray::number(i) + '\n';
    QCOMPARE(process.readAllStandardError(), expected);
}

void tst_Trace::end_doesNotWait_forABlockedMessageHandler()
{
    QProcess process;
    process.start(QCoreApplication::applicationFilePath(), {QStringLiteral("--end-blocked")});
    QVERIFY(process.waitForFinished(60000));
    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(process.exitCode(), 0);
    // The first line is the message handler's, which never returned.
    QCOMPARE(process.readAllStandardError(), QByteArray(prefix.toLatin1() + "Test::second\n"));
}

void tst_Trace::queuedLines_areWritten_whenTheProcessCrashes_data()
{
    QTest::addColumn<QString>("way");
    QTest::addColumn<QByteArray>("before");
    QTest::addColumn<QByteArray>("after");
    QTest::newRow("abort") << "abort" << QByteArray() << QByteArray();
    QTest::newRow("a fault") << "fault" << QByteArray() << QByteArray();
    QTest::newRow("a handler of the host's") << "own" << QByteArray() << QByteArray("own\n");
    QTest::newRow("inside the message handler")
        << "handler" << QByteArray("inside\n") << QByteArray();
}

void tst_Trace::queuedLines_areWritten_whenTheProcessCrashes()
{
#if defined(QTOVELMIXER_GUARD_LEFT_OUT)
    QSKIP("a sanitizer has its own way with crashes");
#endif
    QFETCH(QString, way);
    QFETCH(QByteArray, before);
    QFETCH(QByteArray, after);
    QProcess process;
    process.start(QCoreApplication::applicationFilePath(), {QStringLiteral("--crash"), way});
    QVERIFY(process.waitForFinished(60000));
    QCOMPARE(process.exitStatus(), QProcess::CrashExit);
    QByteArray expected = before;
    for (int i = 0; i < 10; ++i)
        expected += prefix.toLatin1() + "Test::crash number=" + QByteArray::number(i) + '\n';
    QCOMPARE(process.readAllStandardError(), expected + after);
}

void tst_Trace::forkedChild_ends_andLeavesTheLinesToItsParent()
{
#if defined(__SANITIZE_THREAD__)
    QSKIP("the sanitizer takes the child's new mutex for that of its parent");
#endif
#if defined(Q_OS_UNIX)
    QProcess process;
    process.start(QCoreApplication::applicationFilePath(), {QStringLiteral("--fork")});
    QVERIFY(process.waitForFinished(60000));
    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(process.exitCode(), 0);
    QCOMPARE(process.readAllStandardError(),
             QByteArray(prefix.toLatin1() + "Test::child\n" + prefix.toLatin1() + "Test::parent\n" +
                        prefix.toLatin1() + "Test::behind\n"));
#endif
}

void tst_Trace::queue_givesBackWhatWasPushed_overManyRounds()
{
    const auto queue = std::make_unique<TraceQueue>();
    TraceRecord record{};
    record.event = "event";
    record.type = QtInfoMsg;
    record.items = 1;
    record.item[0].key = "number";
    record.item[0].kind = TraceItem::Signed;
    TraceRecord got{};
    qint64 next = 0;
    for (qint64 i = 0; i < qint64(5 * TraceQueue::capacity); ++i) {
        record.item[0].number = i;
        QVERIFY(queue->push(record));
        if (i % 700 < 350)
            continue; // let it fill and empty in turns
        while (queue->pop(got))
            QCOMPARE(got.item[0].number, next++);
    }
    while (queue->pop(got))
        QCOMPARE(got.item[0].number, next++);
    QCOMPARE(next, qint64(5 * TraceQueue::capacity));
    QCOMPARE(queue->pushed(), 5 * TraceQueue::capacity);
    QCOMPARE(queue->popped(), 5 * TraceQueue::capacity);
}

void tst_Trace::queue_refuses_whenFull()
{
    const auto queue = std::make_unique<TraceQueue>();
    TraceRecord record{};
    record.event = "event";
    for (quint64 i = 0; i < TraceQueue::capacity; ++i)
        QVERIFY(queue->push(record));
    QVERIFY(!queue->push(record));
    QVERIFY(queue->pop(record));
    QVERIFY(queue->push(record));
    QVERIFY(!queue->push(record));
}

int main(int argc, char **argv)
{
    if (argc > 1 && qstrcmp(argv[1], "--leave-lines-queued") == 0)
        return leaveLinesQueued();
    if (argc > 1 && qstrcmp(argv[1], "--end-blocked") == 0)
        return endBlocked();
    if (argc > 2 && qstrcmp(argv[1], "--crash") == 0)
        crash(argv[2]);
#if defined(Q_OS_UNIX)
    if (argc > 1 && qstrcmp(argv[1], "--fork") == 0)
        return forkChild();
#endif
    QCoreApplication application(argc, argv);
    tst_Trace test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_trace.moc"
