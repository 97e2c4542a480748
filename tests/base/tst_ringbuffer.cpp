// SPDX-License-Identifier: MIT
#include <base/ringbuffer_p.h>

#include <support/rtguard.h>

#include <QtTest/QTest>

#include <cstring>
#include <deque>
#include <limits>
#include <memory>
#include <random>
#include <vector>

using namespace QTovelMixer;

namespace {
struct Destroy
{
    void operator()(BLRINGBUFFER *ring) const { BLRINGBUFFER_Destroy(&ring); }
};
using Ring = std::unique_ptr<BLRINGBUFFER, Destroy>;

// The byte at an absolute place of the stream; neighbours and places one ring apart differ.
char byteAt(quint64 place)
{
    return static_cast<char>((place * 0x9e3779b97f4a7c15u) >> 56);
}

void fillStream(char *to, quint64 place, int bytes)
{
    for (int i = 0; i < bytes; ++i)
        to[i] = byteAt(place + static_cast<quint64>(i));
}

bool isStream(const char *from, quint64 place, int bytes)
{
    for (int i = 0; i < bytes; ++i) {
        if (from[i] != byteAt(place + static_cast<quint64>(i)))
            return false;
    }
    return true;
}

void addWays()
{
    QTest::addColumn<bool>("mapped");
    QTest::newRow("mapped") << true;
    QTest::newRow("copied") << false;
}

Ring makeRing(int bytes)
{
    QFETCH(bool, mapped);
    return Ring(createRing(bytes, mapped ? MirroredMemory::Mapped : MirroredMemory::Copied));
}

void compareRead(BLRINGBUFFER *ring, quint64 position, int length)
{
    const BLRINGBUFFER_Slice slice = BLRINGBUFFER_GetReadSlice(ring);
    QCOMPARE(quint64(slice.position), position);
    QCOMPARE(slice.length, length);
    QCOMPARE(BLRINGBUFFER_FillCount(ring), length);
}

void compareWrite(BLRINGBUFFER *ring, quint64 position, int length)
{
    const BLRINGBUFFER_Slice slice = BLRINGBUFFER_GetWriteSlice(ring);
    QCOMPARE(quint64(slice.position), position);
    QCOMPARE(slice.length, length);
}
} // namespace

class tst_RingBuffer : public QObject
{
    Q_OBJECT

private slots:
    void new_isEmpty_ofExactCapacity_data();
    void new_isEmpty_ofExactCapacity();
    void new_hasCapacity0_forNoSize_data();
    void new_hasCapacity0_forNoSize();
    void positions_countBytes_data() { addWays(); }
    void positions_countBytes();
    void positions_passFourGigabytes();
    void flush_empties_andRestartsBothPositions_data() { addWays(); }
    void flush_empties_andRestartsBothPositions();
    void flush_findsThePlace_afterManyLapsUnread_data() { addWays(); }
    void flush_findsThePlace_afterManyLapsUnread();
    void flush_keepsWhatTheProducerIsWriting_data() { addWays(); }
    void flush_keepsWhatTheProducerIsWriting();
    void produce_withdraws_forANegativeCount_data() { addWays(); }
    void produce_withdraws_forANegativeCount();
    void consume_leavesOutWhatWasWithdrawn_data() { addWays(); }
    void consume_leavesOutWhatWasWithdrawn();
    void produce_withdrawsAtMostWhatIsReadable_data() { addWays(); }
    void produce_withdrawsAtMostWhatIsReadable();
    void produce_andConsume_stopAtTheirLimits_data() { addWays(); }
    void produce_andConsume_stopAtTheirLimits();
    void slices_areContiguous_atEveryOffsetOfAPage_data() { addWays(); }
    void slices_areContiguous_atEveryOffsetOfAPage();
    void ring_equalsAQueue_underRandomCalls_data();
    void ring_equalsAQueue_underRandomCalls();
    void calls_tolerateNull();
    void destroy_clearsThePointer();
    void calls_areRealTimeSafe_data() { addWays(); }
    void calls_areRealTimeSafe();
};

void tst_RingBuffer::new_isEmpty_ofExactCapacity_data()
{
    QTest::addColumn<bool>("mapped");
    QTest::addColumn<int>("bytes");
    constexpr int meterOf128 = 48000 * 42 / 1000 * 128 * 64;
    for (const bool mapped : {true, false}) {
        const char *const way = mapped ? "mapped" : "copied";
        for (const int bytes : {1, 3, 8, 1023, 4095, 4096, 4097, 65536, 1920000, meterOf128})
            QTest::addRow("%d bytes, %s", bytes, way) << mapped << bytes;
    }
    QTest::newRow("5 s of 128 channels") << true << 48000 * 5 * 128 * 4;
}

void tst_RingBuffer::new_isEmpty_ofExactCapacity()
{
    QFETCH(int, bytes);
    const Ring ring = makeRing(bytes);
    QVERIFY(ring);
    compareRead(ring.get(), 0, 0);
    compareWrite(ring.get(), 0, bytes);
    const BLRINGBUFFER_Slice slice = BLRINGBUFFER_GetWriteSlice(ring.get());
    slice.data[0] = 'a';
    slice.data[bytes - 1] = 'z';
    BLRINGBUFFER_Produce(ring.get(), bytes);
    compareRead(ring.get(), 0, bytes);
    compareWrite(ring.get(), static_cast<quint64>(bytes), 0);
    QCOMPARE(BLRINGBUFFER_GetReadSlice(ring.get()).data[bytes - 1], 'z');
}

void tst_RingBuffer::new_hasCapacity0_forNoSize_data()
{
    QTest::addColumn<int>("bytes");
    for (const int bytes : {0, -1, -4096, std::numeric_limits<int>::min()})
        QTest::addRow("%d", bytes) << bytes;
}

void tst_RingBuffer::new_hasCapacity0_forNoSize()
{
    QFETCH(int, bytes);
    const Ring ring(BLRINGBUFFER_NewEx(bytes, 1));
    QVERIFY(ring);
    for (const int count : {0, 1, 64, -1, std::numeric_limits<int>::min()}) {
        BLRINGBUFFER_Produce(ring.get(), count);
        compareRead(ring.get(), 0, 0);
        compareWrite(ring.get(), 0, 0);
        BLRINGBUFFER_Consume(ring.get(), count);
        BLRINGBUFFER_Flush(ring.get());
    }
    compareRead(ring.get(), 0, 0);
    compareWrite(ring.get(), 0, 0);
}

void tst_RingBuffer::positions_countBytes()
{
    const Ring ring = makeRing(800);
    BLRINGBUFFER_Produce(ring.get(), 240);
    compareRead(ring.get(), 0, 240);
    compareWrite(ring.get(), 240, 560);
    BLRINGBUFFER_Consume(ring.get(), 240);
    compareRead(ring.get(), 240, 0);
    compareWrite(ring.get(), 240, 800);
    BLRINGBUFFER_Produce(ring.get(), 800);
    compareRead(ring.get(), 240, 800);
    BLRINGBUFFER_Consume(ring.get(), 8);
    compareRead(ring.get(), 248, 792);
    compareWrite(ring.get(), 1040, 8);
}

void tst_RingBuffer::positions_passFourGigabytes()
{
    constexpr int block = 1 << 20;
    constexpr quint64 blocks = 4099;
    const Ring ring(BLRINGBUFFER_NewEx(block + 12, 1));
    for (quint64 i = 0; i < blocks; ++i) {
        BLRINGBUFFER_Produce(ring.get(), block);
        BLRINGBUFFER_Consume(ring.get(), block);
    }
    compareRead(ring.get(), blocks * block, 0);
    compareWrite(ring.get(), blocks * block, block + 12);
}

void tst_RingBuffer::flush_empties_andRestartsBothPositions()
{
    const Ring ring = makeRing(1000);
    for (int round = 0; round < 5; ++round) {
        BLRINGBUFFER_Produce(ring.get(), 700);
        BLRINGBUFFER_Consume(ring.get(), 300);
        BLRINGBUFFER_Flush(ring.get());
        compareRead(ring.get(), 0, 0);
        compareWrite(ring.get(), 0, 1000);
    }
    BLRINGBUFFER_Produce(ring.get(), 1000);
    BLRINGBUFFER_Consume(ring.get(), 10);
    compareRead(ring.get(), 10, 990);
    compareWrite(ring.get(), 1000, 10);
}

void tst_RingBuffer::flush_findsThePlace_afterManyLapsUnread()
{
    const Ring ring = makeRing(4096);
    for (int lap = 0; lap < 7; ++lap) {
        QCOMPARE(BLRINGBUFFER_GetWriteSlice(ring.get()).length, 4096);
        BLRINGBUFFER_Produce(ring.get(), 4096);
        BLRINGBUFFER_Flush(ring.get());
    }
    for (int n = 0; n < 5; ++n) {
        char *const fresh = BLRINGBUFFER_GetWriteSlice(ring.get()).data;
        std::memset(fresh, 'a' + n, 1000);
        BLRINGBUFFER_Produce(ring.get(), 1000);
        const BLRINGBUFFER_Slice slice = BLRINGBUFFER_GetReadSlice(ring.get());
        QCOMPARE(slice.length, 1000);
        QCOMPARE(QByteArray(slice.data, 1000), QByteArray(1000, char('a' + n)));
        BLRINGBUFFER_Consume(ring.get(), 1000);
    }
}

void tst_RingBuffer::flush_keepsWhatTheProducerIsWriting()
{
    const Ring ring = makeRing(1000);
    BLRINGBUFFER_Produce(ring.get(), 600);
    const BLRINGBUFFER_Slice slice = BLRINGBUFFER_GetWriteSlice(ring.get());
    fillStream(slice.data, 77, 400);
    BLRINGBUFFER_Flush(ring.get());
    BLRINGBUFFER_Produce(ring.get(), 400);
    compareRead(ring.get(), 0, 400);
    compareWrite(ring.get(), 400, 600);
    QVERIFY(isStream(BLRINGBUFFER_GetReadSlice(ring.get()).data, 77, 400));
}

void tst_RingBuffer::produce_withdraws_forANegativeCount()
{
    const Ring ring = makeRing(4096);
    BLRINGBUFFER_Produce(ring.get(), 3000);
    BLRINGBUFFER_Consume(ring.get(), 3000);
    fillStream(BLRINGBUFFER_GetWriteSlice(ring.get()).data, 0, 2000);
    BLRINGBUFFER_Produce(ring.get(), 2000);
    BLRINGBUFFER_Consume(ring.get(), 100);
    BLRINGBUFFER_Produce(ring.get(), -1500); // back across the end of the memory
    compareRead(ring.get(), 3100, 400);
    compareWrite(ring.get(), 3500, 3696);
    fillStream(BLRINGBUFFER_GetWriteSlice(ring.get()).data, 500, 3696);
    BLRINGBUFFER_Produce(ring.get(), 3696);
    compareRead(ring.get(), 3100, 4096);
    QVERIFY(isStream(BLRINGBUFFER_GetReadSlice(ring.get()).data, 100, 4096));
}

void tst_RingBuffer::consume_leavesOutWhatWasWithdrawn()
{
    const Ring ring = makeRing(1000);
    BLRINGBUFFER_Produce(ring.get(), 900);
    QCOMPARE(BLRINGBUFFER_GetReadSlice(ring.get()).length, 900);
    BLRINGBUFFER_Produce(ring.get(), -500);
    BLRINGBUFFER_Consume(ring.get(), 900);
    compareRead(ring.get(), 400, 0);
    compareWrite(ring.get(), 400, 1000);
}

void tst_RingBuffer::produce_withdrawsAtMostWhatIsReadable()
{
    for (const int count : {-501, -4000, std::numeric_limits<int>::min()}) {
        const Ring ring = makeRing(1000);
        BLRINGBUFFER_Produce(ring.get(), 900);
        BLRINGBUFFER_Consume(ring.get(), 400);
        BLRINGBUFFER_Produce(ring.get(), count);
        compareRead(ring.get(), 400, 0);
        compareWrite(ring.get(), 400, 1000);
        BLRINGBUFFER_Consume(ring.get(), 1);
        compareRead(ring.get(), 400, 0);
        BLRINGBUFFER_Produce(ring.get(), -1);
        compareWrite(ring.get(), 400, 1000);
    }
}

void tst_RingBuffer::produce_andConsume_stopAtTheirLimits()
{
    const Ring ring = makeRing(100);
    BLRINGBUFFER_Produce(ring.get(), 101);
    compareRead(ring.get(), 0, 100);
    BLRINGBUFFER_Produce(ring.get(), 1);
    compareWrite(ring.get(), 100, 0);
    BLRINGBUFFER_Consume(ring.get(), -5);
    compareRead(ring.get(), 0, 100);
    BLRINGBUFFER_Consume(ring.get(), std::numeric_limits<int>::max());
    compareRead(ring.get(), 100, 0);
    BLRINGBUFFER_Consume(ring.get(), 1);
    BLRINGBUFFER_Produce(ring.get(), 0);
    BLRINGBUFFER_Consume(ring.get(), 0);
    compareRead(ring.get(), 100, 0);
    compareWrite(ring.get(), 100, 100);
}

void tst_RingBuffer::slices_areContiguous_atEveryOffsetOfAPage()
{
    constexpr int capacity = 4097; // an odd step through two pages meets every offset
    const Ring ring = makeRing(capacity);
    quint64 place = 0;
    for (int round = 0; round < 2 * 4096; ++round) {
        const BLRINGBUFFER_Slice write = BLRINGBUFFER_GetWriteSlice(ring.get());
        QCOMPARE(write.length, capacity);
        fillStream(write.data, place, capacity);
        BLRINGBUFFER_Produce(ring.get(), capacity);
        const BLRINGBUFFER_Slice read = BLRINGBUFFER_GetReadSlice(ring.get());
        QCOMPARE(read.length, capacity);
        QVERIFY(isStream(read.data, place, capacity));
        BLRINGBUFFER_Consume(ring.get(), capacity);
        place += capacity;
    }
}

void tst_RingBuffer::ring_equalsAQueue_underRandomCalls_data()
{
    QTest::addColumn<bool>("mapped");
    QTest::addColumn<int>("capacity");
    for (const bool mapped : {true, false}) {
        for (const int capacity : {1, 7, 640, 4096, 5003})
            QTest::addRow("%d bytes, %s", capacity, mapped ? "mapped" : "copied")
                << mapped << capacity;
    }
}

void tst_RingBuffer::ring_equalsAQueue_underRandomCalls()
{
    QFETCH(int, capacity);
    const Ring ring = makeRing(capacity);
    std::mt19937 random(4711);
    std::deque<char> expected;
    quint64 produced = 0;
    quint64 consumed = 0;
    quint64 place = 0;
    const auto below = [&](int end) {
        return static_cast<int>(random() % static_cast<unsigned>(end));
    };

    for (int step = 0; step < 4000; ++step) {
        const int action = below(20);
        const int fill = static_cast<int>(expected.size());
        if (action < 9) {
            const int count = below(capacity - fill + 1);
            const BLRINGBUFFER_Slice slice = BLRINGBUFFER_GetWriteSlice(ring.get());
            fillStream(slice.data, place, count);
            expected.insert(expected.end(), slice.data, slice.data + count);
            place += static_cast<quint64>(count);
            BLRINGBUFFER_Produce(ring.get(), count);
            produced += static_cast<quint64>(count);
        } else if (action < 17) {
            const int count = below(fill + 1);
            BLRINGBUFFER_Consume(ring.get(), count);
            expected.erase(expected.begin(), expected.begin() + count);
            consumed += static_cast<quint64>(count);
        } else if (action < 19) {
            const int count = below(fill + 1);
            BLRINGBUFFER_Produce(ring.get(), -count);
            expected.erase(expected.end() - count, expected.end());
            produced -= static_cast<quint64>(count);
        } else {
            BLRINGBUFFER_Flush(ring.get());
            expected.clear();
            produced = consumed = 0;
        }
        compareRead(ring.get(), consumed, static_cast<int>(expected.size()));
        compareWrite(ring.get(), produced, capacity - static_cast<int>(expected.size()));
        const char *const data = BLRINGBUFFER_GetReadSlice(ring.get()).data;
        QVERIFY(std::equal(expected.begin(), expected.end(), data));
    }
}

void tst_RingBuffer::calls_tolerateNull()
{
    BLRINGBUFFER_Produce(nullptr, 1);
    BLRINGBUFFER_Consume(nullptr, 1);
    BLRINGBUFFER_Flush(nullptr);
    BLRINGBUFFER_Destroy(nullptr);
    BLRINGBUFFER *none = nullptr;
    BLRINGBUFFER_Destroy(&none);
    compareRead(nullptr, 0, 0);
    compareWrite(nullptr, 0, 0);
    QVERIFY(!BLRINGBUFFER_GetReadSlice(nullptr).data);
    QVERIFY(!BLRINGBUFFER_GetWriteSlice(nullptr).data);
}

void tst_RingBuffer::destroy_clearsThePointer()
{
    BLRINGBUFFER *ring = BLRINGBUFFER_NewEx(64, 1);
    QVERIFY(ring);
    BLRINGBUFFER_Destroy(&ring);
    QVERIFY(!ring);
    BLRINGBUFFER_Destroy(&ring);
    QVERIFY(!ring);
}

void tst_RingBuffer::calls_areRealTimeSafe()
{
    constexpr int block = 2048;
    const Ring ring = makeRing(5 * block + 4);
    const std::vector<char> samples(block, 'a');
    RealtimeGuard guard;
    for (int i = 0; i < 100; ++i) {
        std::memcpy(BLRINGBUFFER_GetWriteSlice(ring.get()).data, samples.data(), block);
        BLRINGBUFFER_Produce(ring.get(), block);
        BLRINGBUFFER_Produce(ring.get(), -block / 2);
        if (BLRINGBUFFER_FillCount(ring.get()) > 3 * block)
            BLRINGBUFFER_Consume(ring.get(), BLRINGBUFFER_GetReadSlice(ring.get()).length / 2);
        if (i % 10 == 9)
            BLRINGBUFFER_Flush(ring.get());
    }
    guard.end();
    QVERIFY2(guard.violations() == 0, qPrintable(RealtimeGuard::first()));
}

QTEST_GUILESS_MAIN(tst_RingBuffer)
#include "tst_ringbuffer.moc"
