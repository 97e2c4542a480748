// SPDX-License-Identifier: MIT
// What comes out of a virtual device, sample by sample.
#include "virtual_fixture.h"

#include <support/log_capture.h>

#include <QtTest/QSignalSpy>
#include <QtTest/QTest>

using namespace QTovelMixer;
using Pacing = QTovelMixerApiVirtual::Pacing;

namespace {

struct Track
{
    int channels;
    unsigned seed;
};

/// The sum of the tracks: channel c of a stereo track goes to output c, a mono track to both
/// sides, in the order they were added.
std::vector<float> reference(const std::vector<Track> &tracks, qint64 frames)
{
    std::vector<float> sum(size_t(frames) * 2, 0.0f);
    for (const Track &track : tracks) {
        for (qint64 frame = 0; frame < frames; ++frame) {
            for (int side = 0; side < 2; ++side)
                sum[size_t(frame * 2 + side)] +=
                    noiseSample(track.seed, frame, std::min(side, track.channels - 1));
        }
    }
    return sum;
}

std::vector<float> render(Pacing pacing, const std::vector<Track> &tracks, qint64 frames,
                          int dawdle = 0, unsigned block = 256)
{
    VirtualSession session(pacing, frames, 2, 0, 48000, block);
    for (const Track &track : tracks) {
        NoiseSource *source = session.add(48000, track.channels, frames + 48000, track.seed);
        if (!source)
            return {};
        source->dawdle = dawdle;
    }
    if (!session.engine.start(0.0) || !session.finish())
        return {};
    session.engine.deactivate(UserStopAction);
    return session.kept;
}

} // namespace

class tst_ApiVirtualExact : public QObject
{
    Q_OBJECT

private slots:
    void freeWheel_isTheSum();
    void freeWheel_isTheSum_whateverTheBlockSize_data();
    void freeWheel_isTheSum_whateverTheBlockSize();
    void freeWheel_repeatsItself_withDifferentRates();
    void freeWheel_losesNothing_whenTheHostDawdles();
    void freeWheel_losesNothing_whenASinkDawdles();
    void freeWheel_losesNothing_acrossPauses();
    void freeWheel_losesNothing_whenSourcesAreAddedLater();
    void freeWheel_endsAtThePausePosition();
    void freeWheel_playsShortMaterialToItsLastFrame();
    void realTime_isTheSameAsFreeWheel();
    void loopback_comesBackAfterTheDelay_data();
    void loopback_comesBackAfterTheDelay();
    void generator_isRecorded();
};

void tst_ApiVirtualExact::freeWheel_isTheSum()
{
    const std::vector<Track> tracks = {{2, 1}, {2, 2}, {2, 3}};
    const std::vector<float> mix = render(Pacing::FreeWheel, tracks, 480000);
    QVERIFY(mix == reference(tracks, 480000));
}

void tst_ApiVirtualExact::freeWheel_isTheSum_whateverTheBlockSize_data()
{
    QTest::addColumn<unsigned>("block");
    for (const unsigned block : {1u, 63u, 64u, 1000u, 4096u})
        QTest::addRow("%u frames", block) << block;
}

void tst_ApiVirtualExact::freeWheel_isTheSum_whateverTheBlockSize()
{
    QFETCH(unsigned, block);
    const std::vector<Track> tracks = {{2, 1}, {2, 7}};
    const qint64 frames = block == 1 ? 9600 : 96000;
    QVERIFY(render(Pacing::FreeWheel, tracks, frames, 0, block) == reference(tracks, frames));
}

void tst_ApiVirtualExact::freeWheel_repeatsItself_withDifferentRates()
{
    const auto run = [] {
        constexpr qint64 frames = 96000;
        VirtualSession session(Pacing::FreeWheel, frames);
        if (!session.add(44100, 2, 200000, 1) || !session.add(96000, 2, 400000, 2) ||
            !session.add(48000, 1, 200000, 3) || !session.engine.start(0.0) || !session.finish())
            return std::vector<float>();
        session.engine.deactivate(UserStopAction);
        return session.kept;
    };
    const std::vector<float> first = run();
    QCOMPARE(first.size(), size_t(192000));
    QVERIFY(first == run());
}

void tst_ApiVirtualExact::freeWheel_losesNothing_whenTheHostDawdles()
{
    const std::vector<Track> tracks = {{2, 1}, {2, 2}};
    QVERIFY(render(Pacing::FreeWheel, tracks, 480000, 50) == reference(tracks, 480000));
}

void tst_ApiVirtualExact::freeWheel_losesNothing_whenASinkDawdles()
{
    constexpr qint64 frames = 600000; // more than two rings
    VirtualSession session(Pacing::FreeWheel, frames);
    QVERIFY(session.add(48000, 2, frames + 480000, 1));
    auto *sink = new KeepingSink(&session.engine, 48000, 2);
    sink->dawdle = 5;
    QVERIFY(session.engine.addSink(sink));
    QVERIFY(session.engine.addRoute(session.engine.activeSources().first(), sink));
    QVERIFY(session.engine.start(0.0));
    QTRY_VERIFY_WITH_TIMEOUT(sink->keptFrames >= frames, 60000);
    const std::vector<float> recorded = sink->samples();
    session.engine.deactivate(UserStopAction);
    const std::vector<float> expected = reference({{2, 1}}, frames);
    QVERIFY(std::equal(expected.begin(), expected.end(), recorded.begin()));
}

void tst_ApiVirtualExact::freeWheel_losesNothing_acrossPauses()
{
    constexpr qint64 frames = 960000;
    VirtualSession session(Pacing::FreeWheel, frames);
    session.engine.setPauseMode(PauseSoft);
    for (const unsigned seed : {1u, 2u}) {
        NoiseSource *source = session.add(48000, 2, frames + 480000, seed);
        QVERIFY(source);
        source->dawdle = 10;
    }
    QVERIFY(session.engine.start(0.0));
    for (int i = 1; i <= 5; ++i) {
        QTRY_VERIFY(session.engine.time() > i);
        QVERIFY(session.engine.pause());
        const double time = session.engine.time();
        QCoreApplication::processEvents();
        QCOMPARE(session.engine.time(), time);
        QVERIFY(session.engine.resume());
    }
    QVERIFY(session.finish());
    session.engine.deactivate(UserStopAction);
    QVERIFY(session.kept == reference({{2, 1}, {2, 2}}, frames));
}

void tst_ApiVirtualExact::freeWheel_losesNothing_whenSourcesAreAddedLater()
{
    constexpr qint64 frames = 960000;
    VirtualSession session(Pacing::FreeWheel, frames);
    NoiseSource *first = session.add(48000, 2, frames + 480000, 1);
    QVERIFY(first);
    first->dawdle = 10;
    QVERIFY(session.engine.start(0.0));
    QTRY_VERIFY(session.engine.time() > 1.0);
    auto *second = new NoiseSource(&session.engine, 48000, 2, frames + 480000, 2);
    QVERIFY(session.engine.play(second));
    QVERIFY(session.finish());
    session.engine.deactivate(UserStopAction);
    // The second one joins at some block, and from there on is whole.
    const std::vector<float> alone = reference({{2, 1}}, frames);
    const std::vector<float> both = reference({{2, 1}, {2, 2}}, frames);
    const auto joined =
        std::mismatch(session.kept.begin(), session.kept.end(), alone.begin()).first -
        session.kept.begin();
    QVERIFY(joined >= 96000 && joined < qint64(both.size()));
    QCOMPARE(joined % (256 * 2), 0);
    QVERIFY(std::equal(session.kept.begin() + joined, session.kept.end(), both.begin() + joined));
}

void tst_ApiVirtualExact::freeWheel_endsAtThePausePosition()
{
    constexpr qint64 frames = 1024000;
    VirtualSession session(Pacing::FreeWheel, frames);
    session.engine.setPauseMode(PauseSoft);
    NoiseSource *stopping = session.add(48000, 2, frames, 1);
    QVERIFY(stopping && session.add(48000, 2, frames, 2));
    stopping->pauseAt = 2.0;
    QSignalSpy paused(&session.engine, &Engine::paused);
    QVERIFY(session.engine.start(0.0));
    QTRY_COMPARE(paused.count(), 1);
    QCOMPARE(session.engine.time(), 2.0);
    QVERIFY(session.api->stop());
    session.engine.deactivate(UserStopAction);
    QCOMPARE(session.kept.size(), size_t(96000 * 2));
    QVERIFY(session.kept == reference({{2, 1}, {2, 2}}, 96000));
}

void tst_ApiVirtualExact::freeWheel_playsShortMaterialToItsLastFrame()
{
    constexpr qint64 material = 10007; // ends inside a block
    VirtualSession session(Pacing::FreeWheel, 20000);
    QVERIFY(session.add(48000, 2, material, 1));
    QSignalSpy stopped(&session.engine, &Engine::stopped);
    QVERIFY(session.engine.start(0.0));
    QTRY_COMPARE(stopped.count(), 1);
    QCOMPARE(stopped.first().first().value<StopReason>(), StopReason::AudioFinished);
    session.engine.deactivate(UserStopAction);
    std::vector<float> expected = reference({{2, 1}}, material);
    expected.resize(10240 * 2, 0.0f); // to the end of the block, and no further
    QVERIFY(session.kept == expected);
}

void tst_ApiVirtualExact::realTime_isTheSameAsFreeWheel()
{
    const std::vector<Track> tracks = {{2, 1}, {2, 2}};
    QVERIFY(render(Pacing::RealTime, tracks, 48000) == reference(tracks, 48000));
}

void tst_ApiVirtualExact::loopback_comesBackAfterTheDelay_data()
{
    QTest::addColumn<quint64>("delay");
    QTest::addColumn<qint64>("expected");
    QTest::newRow("shorter than a block") << quint64(0) << qint64(256);
    QTest::newRow("a block") << quint64(256) << qint64(256);
    QTest::newRow("not a multiple of a block") << quint64(1001) << qint64(1001);
    QTest::newRow("a second") << quint64(48000) << qint64(48000);
}

void tst_ApiVirtualExact::loopback_comesBackAfterTheDelay()
{
    QFETCH(quint64, delay);
    QFETCH(qint64, expected);
    constexpr qint64 frames = 96000;
    VirtualSession session(Pacing::FreeWheel, frames, 2, 2);
    session.api->setLoopback(delay);
    QVERIFY(session.add(48000, 2, frames * 3, 1));
    auto *sink = new KeepingSink(&session.engine, 48000, 2);
    QVERIFY(session.engine.addSink(sink));
    QVERIFY(session.engine.start(0.0));
    QTRY_VERIFY_WITH_TIMEOUT(sink->keptFrames >= frames, 30000);
    const std::vector<float> recorded = sink->samples();
    session.engine.deactivate(UserStopAction);
    const std::vector<float> played = reference({{2, 1}}, frames);
    for (qint64 i = 0; i < frames * 2; ++i)
        QCOMPARE(recorded[size_t(i)], i < expected * 2 ? 0.0f : played[size_t(i - expected * 2)]);
}

void tst_ApiVirtualExact::generator_isRecorded()
{
    constexpr qint64 frames = 480000;
    VirtualSession session(Pacing::FreeWheel, frames, 0, 2);
    session.api->setGenerator([](float *samples, unsigned count, unsigned channels, quint64 first) {
        for (unsigned frame = 0; frame < count; ++frame) {
            for (unsigned channel = 0; channel < channels; ++channel)
                *samples++ = noiseSample(9, qint64(first + frame), int(channel));
        }
    });
    auto *sink = new KeepingSink(&session.engine, 48000, 2);
    sink->dawdle = 5;
    QVERIFY(session.engine.addSink(sink));
    QVERIFY(session.engine.start(0.0));
    QTRY_VERIFY_WITH_TIMEOUT(sink->keptFrames >= frames, 60000);
    const std::vector<float> recorded = sink->samples();
    session.engine.deactivate(UserStopAction);
    for (qint64 frame = 0; frame < frames; ++frame) {
        for (int channel = 0; channel < 2; ++channel)
            QCOMPARE(recorded[size_t(frame * 2 + channel)], noiseSample(9, frame, channel));
    }
}

QTEST_GUILESS_MAIN(tst_ApiVirtualExact)

#include "tst_api_virtual_exact.moc"
