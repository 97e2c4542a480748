// SPDX-License-Identifier: MIT
#include <mixer/io/frame_ring_p.h>

#include <support/rtguard.h>

#include <QtTest/QTest>

#include <algorithm>
#include <atomic>
#include <limits>
#include <thread>
#include <vector>

#ifdef Q_OS_LINUX
#include <sys/resource.h>
#endif

using namespace QTovelMixer;

class TestFrameRing : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void fresh_hasItsCapacityFree();
    void produceAndConsume_countFrames();
    void produce_negative_withdrawsNewest();
    void flush_restartsPositions();
    void slices_areContiguousAcrossTheEnd();
    void touch_leavesTheConsumerNoPageFault();
    void size_withoutRoom_data();
    void size_withoutRoom();
    void size_beyondTheByteRing_isCutToWholeFrames();
};

void TestFrameRing::fresh_hasItsCapacityFree()
{
    FrameRing ring(1000, 3);
    QVERIFY(ring.handle());
    QCOMPARE(ring.channels(), 3);
    QCOMPARE(ring.capacity(), 1000);
    QVERIFY(ring.isEmpty());
    QCOMPARE(ring.readSlice().frames, 0);
    QCOMPARE(ring.readSlice().position, 0);
    QCOMPARE(ring.writeSlice().frames, 1000);
    QCOMPARE(ring.writeSlice().position, 0);
}

void TestFrameRing::produceAndConsume_countFrames()
{
    FrameRing ring(1000, 3);
    float *to = ring.writeSlice().data;
    for (int i = 0; i < 300; ++i)
        to[i] = static_cast<float>(i);
    ring.produce(100);
    QVERIFY(!ring.isEmpty());
    QCOMPARE(ring.writeSlice().position, 100);
    QCOMPARE(ring.writeSlice().frames, 900);
    const FrameRing::Slice all = ring.readSlice();
    QCOMPARE(all.frames, 100);
    QCOMPARE(all.data[299], 299.0f);
    ring.consume(40);
    const FrameRing::Slice rest = ring.readSlice();
    QCOMPARE(rest.position, 40);
    QCOMPARE(rest.frames, 60);
    QCOMPARE(rest.data[0], 120.0f);
    QCOMPARE(ring.writeSlice().frames, 940);
}

void TestFrameRing::produce_negative_withdrawsNewest()
{
    FrameRing ring(1000, 2);
    ring.produce(500);
    ring.consume(100);
    ring.produce(-150);
    QCOMPARE(ring.readSlice().frames, 250);
    QCOMPARE(ring.readSlice().position, 100);
    QCOMPARE(ring.writeSlice().position, 350);
}

void TestFrameRing::flush_restartsPositions()
{
    FrameRing ring(1000, 2);
    ring.produce(700);
    ring.consume(200);
    ring.flush();
    QVERIFY(ring.isEmpty());
    QCOMPARE(ring.readSlice().position, 0);
    QCOMPARE(ring.writeSlice().position, 0);
    QCOMPARE(ring.writeSlice().frames, 1000);
}

void TestFrameRing::slices_areContiguousAcrossTheEnd()
{
    FrameRing ring(3000, 2);
    int next = 0;
    int expected = 0;
    for (int round = 0; round < 20; ++round) {
        const FrameRing::Slice room = ring.writeSlice();
        QCOMPARE(room.frames, 3000);
        for (int i = 0; i < 2500 * 2; ++i)
            room.data[i] = static_cast<float>(next++);
        ring.produce(2500);
        const FrameRing::Slice filled = ring.readSlice();
        QCOMPARE(filled.frames, 2500);
        QCOMPARE(filled.position, 2500 * round);
        for (int i = 0; i < 2500 * 2; ++i)
            QCOMPARE(filled.data[i], static_cast<float>(expected++));
        ring.consume(2500);
    }
}

// Chunks end with the memory, so that the producer stays in its first half; blocks do not.
void TestFrameRing::touch_leavesTheConsumerNoPageFault()
{
#if defined(QTOVELMIXER_GUARD_LEFT_OUT)
    QSKIP("a sanitizer's own memory takes page faults");
#endif
#ifdef Q_OS_LINUX
    constexpr int chunk = 4096;
    constexpr int block = 257;
    constexpr qint64 frames = 60 * chunk;
    FrameRing ring(frames, 2, MirroredMemory::OnTouch);
    std::vector<float> heard(block * 2);
    const auto faults = [] {
        rusage usage = {};
        getrusage(RUSAGE_THREAD, &usage);
        return usage.ru_minflt + usage.ru_majflt;
    };
    std::atomic<qint64> produced{0};
    qint64 consumed = 0;
    constexpr qint64 all = 2 * frames;
    std::thread producer([&] {
        for (qint64 next = 0; next < all;) {
            const FrameRing::Slice room = ring.writeSlice();
            if (room.frames < chunk) {
                std::this_thread::yield();
                continue;
            }
            std::fill_n(room.data, chunk * 2, float(next));
            ring.touch(chunk);
            ring.produce(chunk);
            next += chunk;
            produced = next;
        }
    });
    long taken = 0;
    bool isRight = true;
    while (consumed + block <= all) {
        if (produced - consumed < block) {
            std::this_thread::yield();
            continue;
        }
        const long before = faults();
        const FrameRing::Slice slice = ring.readSlice();
        std::copy_n(slice.data, block * 2, heard.begin());
        slice.data[0] = -1.0f; // as an effect in place
        ring.consume(block);
        taken += faults() - before;
        isRight = isRight && heard[0] == float(consumed / chunk * chunk);
        consumed += block;
    }
    producer.join();
    QVERIFY(isRight);
    QCOMPARE(taken, 0L);
#else
    QSKIP("page faults of a thread are counted on Linux only");
#endif
}

void TestFrameRing::size_withoutRoom_data()
{
    QTest::addColumn<qint64>("frames");
    QTest::addColumn<int>("channels");
    QTest::newRow("no frames") << qint64{0} << 2;
    QTest::newRow("negative frames") << qint64{-5} << 2;
    QTest::newRow("no channels") << qint64{100} << 0;
    QTest::newRow("negative channels") << qint64{100} << -2;
}

void TestFrameRing::size_withoutRoom()
{
    QFETCH(qint64, frames);
    QFETCH(int, channels);
    FrameRing ring(frames, channels);
    QCOMPARE(ring.capacity(), 0);
    QCOMPARE(ring.writeSlice().frames, 0);
    QCOMPARE(ring.readSlice().frames, 0);
    QVERIFY(ring.isEmpty());
    ring.flush();
    ring.consume(0);
}

void TestFrameRing::size_beyondTheByteRing_isCutToWholeFrames()
{
    constexpr qint64 mostBytes = std::numeric_limits<qint32>::max();
    QCOMPARE(FrameRing::fittingFrames(1000, 3), 1000);
    QCOMPARE(FrameRing::fittingFrames(qint64{1} << 40, 3), mostBytes / 12);
    QCOMPARE(FrameRing::fittingFrames(mostBytes / 4 + 1, 1), mostBytes / 4);
    QCOMPARE(FrameRing::fittingFrames(std::numeric_limits<qint64>::max(), 128), mostBytes / 512);
}

QTEST_GUILESS_MAIN(TestFrameRing)
#include "tst_frame_ring.moc"
