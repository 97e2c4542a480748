// SPDX-License-Identifier: MIT
#include <mixer/api/stream_watch_p.h>

#include <QtTest/QTest>

using QTovelMixer::StreamWatch;

class tst_StreamWatch : public QObject
{
    Q_OBJECT

private slots:
    void block_fails_atTheEighthWarningInARow();
    void block_goesOn_whenABlockBetweenIsGood();
    void block_fails_whenTooFast();
    void block_goesOn_atFourTimesRealTime();
    void block_goesOn_whenTheServerFillsItsBuffer();
    void block_goesOn_afterAPause();
    void block_mayRunFree_whenNotPaced();
};

namespace {

constexpr qint64 second = 1'000'000'000;

/// Blocks of 512 frames at 48 kHz, so many times real time, for half a second.
bool runs(StreamWatch &watch, double speed)
{
    const double step = 512.0 / 48000.0 * second / speed;
    for (int i = 0; i * step < 0.5 * second; ++i) {
        if (!watch.block(512, qint64(i * step), 0))
            return false;
    }
    return true;
}

} // namespace

void tst_StreamWatch::block_fails_atTheEighthWarningInARow()
{
    StreamWatch watch;
    watch.begin(48000, true);
    for (quint64 i = 1; i <= 7; ++i)
        QVERIFY(watch.block(512, qint64(i) * 10'666'667, i * 3));
    QVERIFY(!watch.block(512, 8 * 10'666'667, 24));
}

void tst_StreamWatch::block_goesOn_whenABlockBetweenIsGood()
{
    StreamWatch watch;
    watch.begin(48000, true);
    quint64 warnings = 0;
    for (int i = 0; i < 100; ++i) {
        warnings += i % 8 != 7 ? 1 : 0;
        QVERIFY(watch.block(512, qint64(i) * 10'666'667, warnings));
    }
}

void tst_StreamWatch::block_fails_whenTooFast()
{
    StreamWatch watch;
    watch.begin(48000, true);
    QVERIFY(!runs(watch, 2000.0));
    watch.begin(48000, true);
    QVERIFY(!runs(watch, 8.0));
}

void tst_StreamWatch::block_goesOn_atFourTimesRealTime()
{
    StreamWatch watch;
    watch.begin(48000, true);
    QVERIFY(runs(watch, 1.0));
    watch.begin(48000, true);
    QVERIFY(runs(watch, 4.0));
}

void tst_StreamWatch::block_goesOn_whenTheServerFillsItsBuffer()
{
    StreamWatch watch;
    watch.begin(48000, true);
    qint64 now = 0;
    for (int i = 0; i < 16; ++i)
        QVERIFY(watch.block(16384, now += 1000, 0));
    for (int i = 0; i < 100; ++i)
        QVERIFY(watch.block(16384, now += 341'333'333, 0));
}

void tst_StreamWatch::block_goesOn_afterAPause()
{
    StreamWatch watch;
    watch.begin(48000, true);
    qint64 now = 0;
    for (int i = 0; i < 20; ++i)
        QVERIFY(watch.block(512, now += 10'666'667, 0));
    now += 2 * second;
    for (int i = 0; i < 16; ++i)
        QVERIFY(watch.block(512, now += 1000, 0));
    for (int i = 0; i < 100; ++i)
        QVERIFY(watch.block(512, now += 10'666'667, 0));
}

void tst_StreamWatch::block_mayRunFree_whenNotPaced()
{
    StreamWatch watch;
    watch.begin(48000, false);
    QVERIFY(runs(watch, 2000.0));
}

QTEST_APPLESS_MAIN(tst_StreamWatch)
#include "tst_stream_watch.moc"
