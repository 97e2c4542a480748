// SPDX-License-Identifier: MIT
// Material that never ends: generators, live inputs, streams of unknown length.
#include <support/log_capture.h>
#include <support/session.h>

#include <QtTest/QTest>

#include <limits>

using namespace QTovelMixer;

namespace {

constexpr double infinite = std::numeric_limits<double>::infinity();

} // namespace

class tst_EndlessMaterial : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { Engine::Initialize(); }
    void source_plays_data();
    void source_plays();
    void limits_mayEndAtInfinity();
    void selection_mayEndAtInfinity();
    void range_mayEndAtInfinity();
    void timeline_answersAreNumbers();

private:
    static void hear(const std::vector<float> &heard, qint64 first)
    {
        for (size_t i = 0; i < heard.size(); ++i)
            QCOMPARE(heard[i], float(first + qint64(i)));
    }
};

void tst_EndlessMaterial::source_plays_data()
{
    QTest::addColumn<double>("duration");
    QTest::addColumn<bool>("looping");
    for (const bool looping : {false, true}) {
        const char *const suffix = looping ? ", looping" : "";
        QTest::addRow("infinite%s", suffix) << infinite << looping;
        QTest::addRow("the largest number%s", suffix)
            << std::numeric_limits<double>::max() << looping;
        QTest::addRow("beyond every clock%s", suffix) << 1e15 << looping;
    }
}

void tst_EndlessMaterial::source_plays()
{
    QFETCH(double, duration);
    QFETCH(bool, looping);
    const LogCapture quiet;
    Session session;
    session.engine.setLooping(looping);
    RampSource *const source = session.addRamp(48000, duration);
    QVERIFY(source);
    QCOMPARE(session.engine.timeline()->end(), duration);
    QVERIFY(session.engine.start(0.0));
    constexpr qint64 blocks = 40;
    hear(session.run(blocks), 0);

    // A change of the mix keeps what is buffered and goes on with the next frame.
    const qint64 buffered = source->bufferedFrames();
    QVERIFY(buffered > 0);
    session.engine.setLooping(!looping);
    QVERIFY(source->bufferedFrames() >= buffered);
    hear(session.run(blocks), blocks * Session::blockFrames);
    QCOMPARE(source->time(false), 2 * blocks * Session::blockFrames / 48000.0);

    session.engine.setTime(20.0);
    hear(session.run(blocks), 20 * 48000);
    QCOMPARE(session.count("stopped"), 0);
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
    session.checkAtRest();
}

void tst_EndlessMaterial::limits_mayEndAtInfinity()
{
    const LogCapture quiet;
    Session session;
    QVERIFY(session.addRamp(48000, infinite));
    session.engine.setLimits(1.0, infinite);
    QCOMPARE(session.engine.timeline()->start(), 1.0);
    QCOMPARE(session.engine.timeline()->end(), infinite);
    session.engine.collapsLimits(2.0, infinite);
    QCOMPARE(session.engine.timeline()->start(), 2.0);
    QCOMPARE(session.engine.timeline()->end(), infinite);
    QVERIFY(session.engine.start(2.0));
    hear(session.run(20), 2 * 48000);
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
}

void tst_EndlessMaterial::selection_mayEndAtInfinity()
{
    const LogCapture quiet;
    Session session;
    QVERIFY(session.addRamp(48000, infinite));
    session.engine.addSelection(0.0, 0.5);
    session.engine.addSelection(4.0, infinite);
    QVERIFY(session.engine.start(0.0));
    const std::vector<float> heard = session.run(120);
    for (size_t i = 0; i < heard.size(); ++i)
        QCOMPARE(heard[i], float(i < 24000 ? i : i - 24000 + 4 * 48000));
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
}

void tst_EndlessMaterial::range_mayEndAtInfinity()
{
    const LogCapture quiet;
    Session session;
    auto *const source = new RampSource(&session.engine, 48000, 2, infinite, Range{1.0, infinite});
    QVERIFY(session.engine.addSource(source));
    QVERIFY(session.engine.start(1.0));
    hear(session.run(20), 48000);
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
}

void tst_EndlessMaterial::timeline_answersAreNumbers()
{
    Timeline timeline;
    timeline.setLimits(2.0, infinite);
    QCOMPARE(timeline.duration(), infinite);
    for (const bool looping : {false, true}) {
        timeline.setLooping(looping);
        timeline.adjustLoopTime(1000.25);
        QCOMPARE(timeline.time(1000.25, false, 0.0, -1.0), 1002.25);
        QCOMPARE(timeline.nextChunk(1000.25, 0.5, 48000, 0), std::make_pair(1002.25, 0.5));
        QCOMPARE(timeline.mixer_time(1002.25), 1000.25);
        QCOMPARE(timeline.timeToLoop(1000.25), infinite);
        QCOMPARE(timeline.maxBlockDuration(1000.25), infinite);
    }
    QVERIFY(!timeline.limitsExpanded(3.0, infinite));
    QVERIFY(timeline.limitsCollapsed(3.0, infinite));
    // Only an end may be infinite.
    timeline.setLimits(-infinite, -infinite);
    QCOMPARE(timeline.start(), 0.0);
    QCOMPARE(timeline.end(), 0.0);
    timeline.setLimits(infinite, infinite);
    QCOMPARE(timeline.start(), 0.0);
    QCOMPARE(timeline.end(), infinite);
}

QTEST_GUILESS_MAIN(tst_EndlessMaterial)
#include "tst_endless_material.moc"
