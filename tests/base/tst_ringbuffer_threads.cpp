// SPDX-License-Identifier: MIT
#include <base/ringbuffer_p.h>

#include <QtTest/QTest>

#include <algorithm>
#include <cstring>
#include <random>
#include <thread>

using namespace QTovelMixer;

namespace {
constexpr int maxChunk = 512; // words: many cache lines

// The words of a long stream, each a frame of stereo; QTTOVELMIXER_RING_FRAMES asks for more.
quint64 streamWords()
{
    const quint64 asked = qEnvironmentVariable("QTTOVELMIXER_RING_FRAMES").toULongLong();
    return asked > 0 ? asked : 1000000;
}

// The word at a place of the stream, from a seed.
quint64 wordAt(quint64 seed, quint64 place)
{
    quint64 x = seed + (place + 1) * 0x9e3779b97f4a7c15u;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9u;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebu;
    return x ^ (x >> 31);
}

// Writes `words` words of the stream, in chunks of random length. Returns whether every slice kept
// its limits.
bool produceStream(BLRINGBUFFER *ring, quint64 seed, quint64 words, int capacity, bool positions)
{
    std::mt19937 random(1);
    bool good = true;
    for (quint64 place = 0; place < words;) {
        const BLRINGBUFFER_Slice slice = BLRINGBUFFER_GetWriteSlice(ring);
        good = good && slice.length >= 0 && slice.length <= capacity;
        good = good && (!positions || slice.position == place * 8);
        const quint64 room = static_cast<quint64>(slice.length) / 8;
        const quint64 count = std::min({quint64{1 + random() % maxChunk}, room, words - place});
        if (count == 0) {
            std::this_thread::yield();
            continue;
        }
        for (quint64 i = 0; i < count; ++i) {
            const quint64 word = wordAt(seed, place + i);
            std::memcpy(slice.data + i * 8, &word, 8);
        }
        BLRINGBUFFER_Produce(ring, static_cast<int>(count * 8));
        place += count;
    }
    return good;
}

struct Consumer
{
    BLRINGBUFFER *ring;
    quint64 seed;
    quint64 words;
    int capacity;

    quint64 place = 0;    // of the next word
    quint64 position = 0; // expected of the next slice, bytes
    QString failure = {};

    void consumeSome(std::mt19937 &random);
};

void Consumer::consumeSome(std::mt19937 &random)
{
    const BLRINGBUFFER_Slice slice = BLRINGBUFFER_GetReadSlice(ring);
    if (slice.length < 0 || slice.length > capacity || slice.position != position)
        failure = QStringLiteral("slice of %1 bytes at %2").arg(slice.length).arg(slice.position);
    const quint64 ready = static_cast<quint64>(slice.length) / 8;
    const quint64 count = std::min(quint64{1 + random() % maxChunk}, ready);
    for (quint64 i = 0; i < count; ++i) {
        quint64 word = 0;
        std::memcpy(&word, slice.data + i * 8, 8);
        if (word != wordAt(seed, place + i))
            failure = QStringLiteral("word %1 differs").arg(place + i);
    }
    BLRINGBUFFER_Consume(ring, static_cast<int>(count * 8));
    place += count;
    position += count * 8;
    if (count == 0)
        std::this_thread::yield();
}
} // namespace

class tst_RingBufferThreads : public QObject
{
    Q_OBJECT

private slots:
    void stream_arrivesWhole_data();
    void stream_arrivesWhole();
    void stream_staysInOrder_whenTheConsumerFlushes_data();
    void stream_staysInOrder_whenTheConsumerFlushes();
};

void tst_RingBufferThreads::stream_arrivesWhole_data()
{
    QTest::addColumn<int>("capacity");
    QTest::addColumn<bool>("mapped");
    QTest::newRow("one word") << 8 << true;
    QTest::newRow("three words") << 24 << true;
    QTest::newRow("a page") << 4096 << true;
    QTest::newRow("odd number of words") << 4104 << true;
    QTest::newRow("half a second of stereo") << 192000 << true;
    QTest::newRow("three words, copied") << 24 << false;
    QTest::newRow("odd number of words, copied") << 4104 << false;
}

void tst_RingBufferThreads::stream_arrivesWhole()
{
    QFETCH(int, capacity);
    QFETCH(bool, mapped);
    const quint64 words = capacity < 4096 ? 20000 : streamWords();
    const quint64 seed = 20240229;
    BLRINGBUFFER *ring =
        createRing(capacity, mapped ? MirroredMemory::Mapped : MirroredMemory::Copied);
    bool limitsKept = false;
    std::thread producer([&] { limitsKept = produceStream(ring, seed, words, capacity, true); });
    std::mt19937 random(2);
    Consumer consumer{ring, seed, words, capacity};
    while (consumer.place < words)
        consumer.consumeSome(random);
    producer.join();
    const int left = BLRINGBUFFER_FillCount(ring);
    BLRINGBUFFER_Destroy(&ring);
    QVERIFY2(consumer.failure.isEmpty(), qPrintable(consumer.failure));
    QVERIFY(limitsKept);
    QCOMPARE(consumer.place, words);
    QCOMPARE(left, 0);
}

void tst_RingBufferThreads::stream_staysInOrder_whenTheConsumerFlushes_data()
{
    QTest::addColumn<int>("capacity");
    QTest::newRow("ten words") << 80;
    QTest::newRow("three pages") << 12288;
}

// Words between two flushes follow each other; a flush loses a whole number of words, and none
// twice.
void tst_RingBufferThreads::stream_staysInOrder_whenTheConsumerFlushes()
{
    QFETCH(int, capacity);
    const quint64 words = 200000;
    BLRINGBUFFER *ring = BLRINGBUFFER_NewEx(capacity, 1);
    bool limitsKept = false;
    std::thread producer([&] {
        // Every word is its own place, so the consumer can see where a flush has left it.
        limitsKept = true;
        for (quint64 place = 0; place < words;) {
            const BLRINGBUFFER_Slice slice = BLRINGBUFFER_GetWriteSlice(ring);
            limitsKept = limitsKept && slice.length >= 0 && slice.length <= capacity &&
                         slice.position <= place * 8;
            const quint64 count =
                std::min({quint64{7}, static_cast<quint64>(slice.length) / 8, words - place});
            for (quint64 i = 0; i < count; ++i) {
                const quint64 word = place + i;
                std::memcpy(slice.data + i * 8, &word, 8);
            }
            BLRINGBUFFER_Produce(ring, static_cast<int>(count * 8));
            place += count;
            if (count == 0)
                std::this_thread::yield();
        }
    });
    QString failure;
    quint64 next = 0; // the smallest word that may come
    bool afterFlush = false;
    quint64 position = 0;
    int round = 0;
    for (bool ended = false; !ended;) {
        const BLRINGBUFFER_Slice slice = BLRINGBUFFER_GetReadSlice(ring);
        if (slice.position != position || slice.length < 0 || slice.length > capacity ||
            slice.length % 8 != 0)
            failure =
                QStringLiteral("slice of %1 bytes at %2").arg(slice.length).arg(slice.position);
        const int count = slice.length / 8;
        for (int i = 0; i < count; ++i) {
            quint64 word = 0;
            std::memcpy(&word, slice.data + i * 8, 8);
            if (afterFlush ? word < next : word != next)
                failure = QStringLiteral("word %1 instead of %2").arg(word).arg(next);
            afterFlush = false;
            next = word + 1;
        }
        BLRINGBUFFER_Consume(ring, slice.length);
        position += static_cast<quint64>(slice.length);
        ended = next == words;
        if (count == 0)
            std::this_thread::yield();
        // No more flushes near the end, or the last word, which ends the run, may be among the
        // lost.
        if (++round % 3 == 0 && next < words - 2 * static_cast<quint64>(capacity)) {
            BLRINGBUFFER_Flush(ring);
            afterFlush = true;
            position = 0;
        }
    }
    producer.join();
    BLRINGBUFFER_Destroy(&ring);
    QVERIFY2(failure.isEmpty(), qPrintable(failure));
    QVERIFY(limitsKept);
}

QTEST_GUILESS_MAIN(tst_RingBufferThreads)
#include "tst_ringbuffer_threads.moc"
