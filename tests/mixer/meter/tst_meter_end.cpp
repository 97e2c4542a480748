// SPDX-License-Identifier: MIT
// How a meter ends: by itself, with its parent, or deleted by the host in whatever state.
#include "meter_fixture.h"

#include <support/log_capture.h>

#include <QtTest/QTest>

using namespace QTovelMixer;

namespace {

constexpr int patience = 20000; // ms

enum State { Idle, Running, Stopping };

void addStates()
{
    QTest::addColumn<int>("state");
    QTest::newRow("idle") << int(Idle);
    QTest::newRow("running") << int(Running);
    QTest::newRow("stopping") << int(Stopping);
}

void bring(Meter &meter, int state)
{
    if (state == Idle)
        return;
    meter.start();
    meter.fill(blockOf(2, 1.0f));
    QTRY_VERIFY(valuesOf(meter).hold_level(0) == 0.0);
    if (state == Stopping)
        meter.stop(false);
}

QStringList endOfMeter(int state)
{
    QStringList lines{"Deleting \"input\" meter..."};
    if (state != Idle)
        lines << "QTovelMixer::Meter::Data: Deleting Meter \"input\" with timer still active!";
    return lines << "Finalized \"input\" meter!";
}

} // namespace

class tst_MeterEnd : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void aboutToQuit_deletesMeterAndThread_data();
    void aboutToQuit_deletesMeterAndThread();
    void delete_endsTheThread_data();
    void delete_endsTheThread();
    void delete_onItsOwnThread_endsTheThread();
    void delete_onTheStack();
    void delete_whileFed();
    void parent_meterTicksOnItsThread();
    void parent_deletesTheMeter_data();
    void parent_deletesTheMeter();
    void slots_threadNotRunning_runDirectly();
};

void tst_MeterEnd::aboutToQuit_deletesMeterAndThread_data()
{
    addStates();
}

void tst_MeterEnd::aboutToQuit_deletesMeterAndThread()
{
    QFETCH(int, state);
    const QPointer<Meter> meter = makeMeter(2).release();
    const QPointer<QThread> thread = meter->thread();
    MeterSignals emitted(meter);
    bring(*meter, state);
    LogCapture log;
    meter->aboutToQuit();
    QVERIFY(thread->wait(patience));
    QVERIFY(!meter);
    emitted.collect();
    QCOMPARE(emitted.stopped, state == Idle ? 0 : 1);
    QCOMPARE(log.texts(QtInfoMsg), endOfMeter(Idle));
    QTRY_VERIFY(!thread); // by the event loop of the thread that made it
}

void tst_MeterEnd::delete_endsTheThread_data()
{
    addStates();
}

void tst_MeterEnd::delete_endsTheThread()
{
    QFETCH(int, state);
    Meter *meter = makeMeter(2).release();
    const QPointer<QThread> thread = meter->thread();
    bring(*meter, state);
    LogCapture log;
    delete meter;
    QVERIFY(thread->isFinished());
    QCOMPARE(log.texts(), endOfMeter(state)); // and no complaint of a timer
    QTRY_VERIFY(!thread);
}

void tst_MeterEnd::delete_onItsOwnThread_endsTheThread()
{
    const QPointer<Meter> meter = makeMeter(2).release();
    const QPointer<QThread> thread = meter->thread();
    meter->start();
    LogCapture log;
    meter->deleteLater();
    QVERIFY(thread->wait(patience));
    QVERIFY(!meter);
    QCOMPARE(log.texts(), endOfMeter(Running));
    QTRY_VERIFY(!thread);
}

void tst_MeterEnd::delete_onTheStack()
{
    QPointer<QThread> thread;
    {
        Meter meter(Type::Input, 48000, 2, MeterConfig(), nullptr);
        thread = meter.thread();
        meter.start();
        QVERIFY(meter.fill(blockOf(2, 0.5f)));
        QTRY_VERIFY(valuesOf(meter).level(0) > -7.0);
    }
    QVERIFY(thread->isFinished());
    QTRY_VERIFY(!thread);
}

void tst_MeterEnd::delete_whileFed()
{
    for (int i = 0; i < 20; ++i) {
        Meter *meter = makeMeter(2).release();
        meter->start();
        for (int block = 0; block < 16; ++block)
            QVERIFY(meter->fill(blockOf(2, 0.5f)));
        if (i % 2)
            QTRY_VERIFY(valuesOf(*meter).level(0) > -7.0);
        QThread *const thread = meter->thread();
        delete meter;
        QCoreApplication::sendPostedEvents(thread, QEvent::DeferredDelete);
    }
}

void tst_MeterEnd::parent_meterTicksOnItsThread()
{
    LogCapture log;
    QObject parent;
    Meter meter(Type::Input, 48000, 2, MeterConfig(), &parent);
    QCOMPARE(meter.parent(), &parent);
    QCOMPARE(meter.thread(), QThread::currentThread());
    MeterSignals emitted(&meter);
    meter.start(); // would wait for itself if it went by the meter's own thread
    QVERIFY(meter.isRunning());
    QCOMPARE(emitted.started, 1);
    QVERIFY(meter.fill(blockOf(2, 0.5f)));
    QTRY_COMPARE(emitted.changed, 1);
    meter.stop(true);
    QCOMPARE(emitted.stopped, 1);
    QVERIFY(!meter.isRunning());
    QCOMPARE(log.texts(), (QStringList{"Starting \"input\" meter", "Stopping \"input\" meter"}));
}

void tst_MeterEnd::parent_deletesTheMeter_data()
{
    addStates();
}

void tst_MeterEnd::parent_deletesTheMeter()
{
    QFETCH(int, state);
    auto parent = std::make_unique<QObject>();
    QPointer<Meter> meter = new Meter(Type::Input, 48000, 2, MeterConfig(), parent.get());
    bring(*meter, state);
    LogCapture log;
    parent.reset();
    QVERIFY(!meter);
    QCOMPARE(log.texts(), endOfMeter(state));

    // After `aboutToQuit` the meter goes by itself, or with its parent.
    for (const bool byParent : {true, false}) {
        parent = std::make_unique<QObject>();
        meter = new Meter(Type::Input, 48000, 2, MeterConfig(), parent.get());
        bring(*meter, state);
        MeterSignals emitted(meter);
        meter->aboutToQuit();
        QCOMPARE(emitted.stopped, state == Idle ? 0 : 1);
        if (byParent)
            parent.reset();
        QTRY_VERIFY(!meter);
    }
}

void tst_MeterEnd::slots_threadNotRunning_runDirectly()
{
    LogCapture log;
    QThread home;
    auto parent = std::make_unique<QObject>();
    const QPointer<Meter> meter = new Meter(Type::Input, 48000, 2, MeterConfig(), parent.get());
    parent->moveToThread(&home);
    QCOMPARE(meter->thread(), &home);
    MeterSignals emitted(meter);
    meter->start(); // nothing ticks on that thread
    QVERIFY(!meter->isRunning());
    QVERIFY(meter->fill(blockOf(2, 0.5f)));
    meter->stop(false);
    meter->stop(true);
    meter->aboutToQuit();
    emitted.collect();
    QCOMPARE(emitted.started, 0);
    QCOMPARE(emitted.stopped, 1);
    QCOMPARE(log.texts(), QStringList{"Stopping \"input\" meter"});
    parent.reset();
    QVERIFY(!meter);
}

QTEST_GUILESS_MAIN(tst_MeterEnd)
#include "tst_meter_end.moc"
