// SPDX-License-Identifier: MIT
// Sources and sinks of which nothing can be made: refused before they cost anything, or ended in a
// way that nobody takes for the end of their material.
#include "faulty_hosts.h"
#include "resource_limits.h"

#include <support/log_capture.h>

#include <limits>

using namespace QTovelMixer;

namespace {

constexpr size_t megabyte = 1024 * 1024;
constexpr int highest = std::numeric_limits<int>::max();

/// Material without end, with a ring as long as wished.
class LongRing : public Source
{
public:
    LongRing(Engine *engine, int rate, int channels, float seconds)
        : Source(engine, rate, channels, seconds)
    {}
    double contentStart() const override { return 0.0; }
    double contentDuration() const override { return 60.0; }
    bool acceptPause(PauseMode) override { return true; }
    int readSamples(float *buffer, int frames, int channels, double) override
    {
        std::fill_n(buffer, size_t(frames) * size_t(channels), 0.25f);
        return frames;
    }
};

} // namespace

class tst_Unplayable : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { Engine::Initialize(); }
    void addSource_refusesARate_data();
    void addSource_refusesARate();
    void addSource_refusesALength_data();
    void addSource_refusesALength();
    void addSource_takesEveryRateThatConverts_data();
    void addSource_takesEveryRateThatConverts();
    void source_of128Channels_plays();
    void add_refusesManyChannels_withoutMemory();
    void start_ofASource_endsIt_data();
    void start_ofASource_endsIt();
    void start_ofASink_endsIt_data();
    void start_ofASink_endsIt();
    void source_withoutMemory_endsAsFailed();
};

void tst_Unplayable::addSource_refusesARate_data()
{
    QTest::addColumn<int>("rate");
    QTest::newRow("1 Hz") << 1;
    QTest::newRow("none") << 0;
    QTest::newRow("below none") << -48000;
    QTest::newRow("below 1/256") << 187;
    QTest::newRow("above the converter's") << 1536001;
    QTest::newRow("highest") << highest;
}

void tst_Unplayable::addSource_refusesARate()
{
    QFETCH(int, rate);
    const LogCapture log;
    Session session;
    const auto source = std::make_unique<RampSource>(&session.engine, rate, 2, 60.0);
    QVERIFY(!session.engine.addSource(source.get()));
    QCOMPARE(log.texts(QtCriticalMsg),
             QStringList(QString::asprintf("QTovelMixer::addSource: Cannot play %d Hz at 48000 Hz "
                                           "(%p)!!",
                                           rate, static_cast<void *>(source.get()))));
    QCOMPARE(session.engine.numActiveSources(), 0);
    QCOMPARE(session.count("sourceAdded"), 0);
    QVERIFY(session.engine.timeline()->end() < 0.0);
    playsAgain(session);
}

void tst_Unplayable::addSource_refusesALength_data()
{
    QTest::addColumn<double>("length");
    QTest::addColumn<bool>("hasRange");
    QTest::addColumn<bool>("isTaken");
    constexpr double none = std::numeric_limits<double>::quiet_NaN();
    QTest::newRow("no number") << none << false << false;
    QTest::newRow("negative") << -1.0 << false << false;
    QTest::newRow("nothing") << 0.0 << false << true;
    QTest::newRow("no number, but a range") << none << true << false;
    QTest::newRow("negative, but a range") << -1.0 << true << true;
}

void tst_Unplayable::addSource_refusesALength()
{
    QFETCH(double, length);
    QFETCH(bool, hasRange);
    QFETCH(bool, isTaken);
    const LogCapture log;
    Session session;
    auto source = std::make_unique<RampSource>(&session.engine, 48000, 2, length);
    if (hasRange)
        source->setRange(Range(1.0, 2.0));
    QCOMPARE(session.engine.addSource(source.get()), isTaken);
    QCOMPARE(log.texts(QtCriticalMsg)
                 .count(QString::asprintf("QTovelMixer::addSource: Invalid length of material "
                                          "(%p)!!",
                                          static_cast<void *>(source.get()))),
             isTaken ? 0 : 1);
    QCOMPARE(session.engine.numActiveSources(), isTaken ? 1 : 0);
    if (isTaken)
        source.release();
    else
        QVERIFY(session.engine.timeline()->end() < 0.0);
    playsAgain(session);
}

void tst_Unplayable::addSource_takesEveryRateThatConverts_data()
{
    QTest::addColumn<int>("rate");
    QTest::newRow("lowest") << 188;
    QTest::newRow("highest") << 1536000;
}

void tst_Unplayable::addSource_takesEveryRateThatConverts()
{
    QFETCH(int, rate);
    const LogCapture quiet;
    Session session;
    QVERIFY(session.addRamp(rate, 60.0));
    QVERIFY(session.engine.start(0.0));
    QCOMPARE(session.run(10).size(), size_t(10 * Session::blockFrames));
    playsAgain(session);
}

// As many as the mix has.
void tst_Unplayable::source_of128Channels_plays()
{
    Session session(0, 2);
    auto *source = new RampSource(&session.engine, 48000, 128, 20.0);
    QVERIFY(session.engine.addSource(source));
    QVERIFY(session.engine.start(0.0));
    QVERIFY(session.run(1).back() > 0.0f);
    session.stopAll();
    QTRY_COMPARE(session.count("stopped"), 1);
}

// A damaged header may claim any number: with buses for all of them that would be 100 MB.
void tst_Unplayable::add_refusesManyChannels_withoutMemory()
{
    const LogCapture log;
    Session session(2, 2);
    const auto source = std::make_unique<RampSource>(&session.engine, 48000, 100000, 60.0);
    const auto sink = std::make_unique<TakeSink>(&session.engine, 48000, 100000);
    {
        const AddressLimit limit(32 * megabyte);
        QVERIFY(limit.isSet());
        QVERIFY(!session.engine.addSource(source.get()));
        QVERIFY(!session.engine.addSink(sink.get()));
    }
    QCOMPARE(log.countStarting("QTovelMixer::addSource: Unable to add source ("), 1);
    QCOMPARE(log.countStarting("QTovelMixer::addSink: Unable to add sink ("), 1);
    playsAgain(session);
}

void tst_Unplayable::start_ofASource_endsIt_data()
{
    QTest::addColumn<int>("rate");
    QTest::addColumn<int>("channels");
    QTest::newRow("1 Hz") << 1 << 2;
    QTest::newRow("no rate") << 0 << 2;
    QTest::newRow("many channels") << 48000 << 100000;
}

void tst_Unplayable::start_ofASource_endsIt()
{
    QFETCH(int, rate);
    QFETCH(int, channels);
    const LogCapture log;
    Session session;
    RampSource source(&session.engine, rate, channels, 60.0);
    int finished = 0;
    connect(
        &source, &Source::sourceFinished, &source, [&] { ++finished; }, Qt::DirectConnection);
    {
        const AddressLimit limit(512 * megabyte); // for a thread
        QVERIFY(limit.isSet());
        source.start();
        source.prime();
        QVERIFY(source.wait(longest));
    }
    QCOMPARE(source.stopReason(), WorkerFailed);
    QCOMPARE(finished, 1);
    QCOMPARE(source.framesRead.load(), 0);
    QCOMPARE(log.texts(QtCriticalMsg),
             QStringList(QString::asprintf(
                 "QTovelMixer::Source: Cannot play %d channels of %d Hz at 48000 Hz (%p)!!",
                 channels, rate, static_cast<void *>(&source))));
}

void tst_Unplayable::start_ofASink_endsIt_data()
{
    QTest::addColumn<int>("rate");
    QTest::addColumn<int>("channels");
    QTest::newRow("no rate") << 0 << 2;
    QTest::newRow("1 Hz") << 1 << 2;
    QTest::newRow("highest rate") << highest << 2;
    QTest::newRow("many channels") << 48000 << 100000;
}

void tst_Unplayable::start_ofASink_endsIt()
{
    QFETCH(int, rate);
    QFETCH(int, channels);
    const LogCapture log;
    Session session;
    TakeSink sink(&session.engine, rate, channels);
    {
        const AddressLimit limit(512 * megabyte);
        QVERIFY(limit.isSet());
        sink.start();
        QVERIFY(sink.wait(longest));
    }
    QCOMPARE(sink.stopReason(), WorkerFailed);
    QCOMPARE(log.texts(QtCriticalMsg),
             QStringList(QString::asprintf(
                 "QTovelMixer::Sink: Cannot record %d channels of 48000 Hz at %d Hz (%p)!!",
                 channels, rate, static_cast<void *>(&sink))));
}

void tst_Unplayable::source_withoutMemory_endsAsFailed()
{
    const LogCapture log;
    Session session;
    auto *const source = new LongRing(&session.engine, 48000, 2, 4000.0f); // a ring of 1.5 GB
    QVERIFY(session.engine.addSource(source));
    {
        const AddressLimit limit(512 * megabyte);
        QVERIFY(limit.isSet());
        QVERIFY(session.engine.start(0.0));
        QTRY_COMPARE_WITH_TIMEOUT(session.count("stopped"), 1, longest);
    }
    QCOMPARE(session.lastReason, WorkerFailed);
    QCOMPARE(session.count("sourceFinished"), 1);
    QCOMPARE(log.texts(QtCriticalMsg),
             QStringList(QString::asprintf("QTovelMixer::Source: Out of memory (%p)!!",
                                           static_cast<void *>(source))));
    playsAgain(session);
}

QTEST_GUILESS_MAIN(tst_Unplayable)
#include "tst_unplayable.moc"
