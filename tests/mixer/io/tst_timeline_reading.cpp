// SPDX-License-Identifier: MIT
// Chunk after chunk, as a source reads them: every frame of the stretches once, in order, where the
// bounds are exact in seconds, in frames and in ticks.
#include <mixer/io/timeline.h>

#include <QtTest/QTest>

#include <cmath>
#include <random>
#include <vector>

using namespace QTovelMixer;

class tst_timeline_reading : public QObject
{
    Q_OBJECT

private slots:
    void chunks_giveEveryFrameOnce_data();
    void chunks_giveEveryFrameOnce();
};

void tst_timeline_reading::chunks_giveEveryFrameOnce_data()
{
    QTest::addColumn<int>("rate");
    QTest::addColumn<int>("unit"); // bounds are multiples of 1 / unit seconds
    QTest::addColumn<bool>("looping");
    for (const int rate : {44100, 48000, 96000}) {
        for (const bool looping : {false, true}) {
            QTest::addRow("%d, quarters, %d", rate, looping) << rate << 4 << looping;
            if (rate != 44100)
                QTest::addRow("%d, 64ths, %d", rate, looping) << rate << 64 << looping;
        }
    }
}

void tst_timeline_reading::chunks_giveEveryFrameOnce()
{
    QFETCH(int, rate);
    QFETCH(int, unit);
    QFETCH(bool, looping);
    constexpr int most = 4096;
    std::mt19937 random(7);
    for (int round = 0; round < 200; ++round) {
        const int count = 1 + int(random() % 4);
        Timeline timeline;
        std::vector<std::pair<qint64, qint64>> stretches; // in frames
        qint64 at = random() % unsigned(unit);
        for (int i = 0; i < count; ++i) {
            const qint64 length = 1 + random() % unsigned(unit * 3);
            stretches.push_back({at * rate / unit, (at + length) * rate / unit});
            at += length + 1 + random() % unsigned(unit);
        }
        const auto seconds = [rate](qint64 frame) { return double(frame) / rate; };
        timeline.setLimits(seconds(stretches.front().first), seconds(stretches.back().second));
        for (const auto &[begin, end] : stretches) {
            if (count > 1)
                timeline.addSlice(seconds(begin), seconds(end));
        }
        timeline.setLooping(looping);

        qint64 clock = 0;
        const int passes = looping ? 3 : 1;
        for (int pass = 0; pass < passes; ++pass) {
            for (const auto &[begin, end] : stretches) {
                for (qint64 frame = begin; frame < end;) {
                    const auto [start, length] =
                        timeline.nextChunk(seconds(clock), seconds(most), rate, 0);
                    const qint64 frames = std::llround(length * rate);
                    QVERIFY2(std::llround(start * rate) == frame &&
                                 frames == std::min<qint64>(most, end - frame),
                             qPrintable(QString("round %1, pass %2, [%3, %4): %5 frames from %6 "
                                                "instead of %7")
                                            .arg(round)
                                            .arg(pass)
                                            .arg(begin)
                                            .arg(end)
                                            .arg(frames)
                                            .arg(start * rate, 0, 'f', 3)
                                            .arg(frame)));
                    frame += frames;
                    clock += frames;
                }
            }
        }
        if (!looping)
            QCOMPARE(timeline.nextChunk(seconds(clock), seconds(most), rate, 0),
                     std::pair(0.0, 0.0));
    }
}

QTEST_GUILESS_MAIN(tst_timeline_reading)
#include "tst_timeline_reading.moc"
