// SPDX-License-Identifier: MIT
#include <base/mirrored_memory_p.h>

#include <support/rtguard.h>

#include <QtTest/QTest>

#include <algorithm>
#include <cstring>

#include <sys/resource.h>
#include <unistd.h>

using namespace QTovelMixer;

namespace {
size_t pageSize()
{
    return static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

long pageFaults()
{
    rusage usage;
    getrusage(RUSAGE_THREAD, &usage);
    return usage.ru_minflt + usage.ru_majflt;
}
} // namespace

class tst_MirroredMemory : public QObject
{
    Q_OBJECT

private slots:
    void map_roundsUpToPages_data();
    void map_roundsUpToPages();
    void byte_appearsInBothHalves();
    void memory_isZeroAtFirst_data();
    void memory_isZeroAtFirst();
    void memory_isTouched();
    void memory_isTouchedPieceByPiece();
    void copied_isPlainMemoryOfTwiceTheSize();
    void noBytes_giveNoMemory();
};

void tst_MirroredMemory::map_roundsUpToPages_data()
{
    QTest::addColumn<size_t>("bytes");
    QTest::addColumn<size_t>("pages");
    QTest::newRow("1 byte") << size_t(1) << size_t(1);
    QTest::newRow("less than a page") << pageSize() - 1 << size_t(1);
    QTest::newRow("a page") << pageSize() << size_t(1);
    QTest::newRow("a page and a byte") << pageSize() + 1 << size_t(2);
    QTest::newRow("300 pages") << 300 * pageSize() << size_t(300);
}

void tst_MirroredMemory::map_roundsUpToPages()
{
    QFETCH(size_t, bytes);
    QFETCH(size_t, pages);
    const MirroredMemory memory(bytes);
    QVERIFY(memory.isMirrored());
    QVERIFY(memory.data());
    QCOMPARE(memory.size(), pages * pageSize());
    QCOMPARE(reinterpret_cast<quintptr>(memory.data()) % pageSize(), quintptr(0));
}

void tst_MirroredMemory::byte_appearsInBothHalves()
{
    const MirroredMemory memory(3 * pageSize());
    const size_t size = memory.size();
    for (size_t i = 0; i < size; ++i)
        memory.data()[i] = static_cast<char>(i * 7 + i / 251);
    QCOMPARE(std::memcmp(memory.data(), memory.data() + size, size), 0);
    for (size_t i = 0; i < size; ++i)
        memory.data()[size + i] = static_cast<char>(i * 13 + i / 239);
    QCOMPARE(std::memcmp(memory.data(), memory.data() + size, size), 0);
    QCOMPARE(memory.data()[size - 1], static_cast<char>((size - 1) * 13 + (size - 1) / 239));
}

void tst_MirroredMemory::memory_isZeroAtFirst_data()
{
    QTest::addColumn<bool>("mapped");
    QTest::newRow("mapped") << true;
    QTest::newRow("copied") << false;
}

void tst_MirroredMemory::memory_isZeroAtFirst()
{
    QFETCH(bool, mapped);
    const MirroredMemory memory(5000, mapped ? MirroredMemory::Mapped : MirroredMemory::Copied);
    const QByteArray zeros(static_cast<qsizetype>(2 * memory.size()), '\0');
    QCOMPARE(std::memcmp(memory.data(), zeros.constData(), 2 * memory.size()), 0);
}

void tst_MirroredMemory::memory_isTouched()
{
    constexpr size_t pages = 1024;
    const MirroredMemory memory(pages * pageSize());
    const long before = pageFaults();
    for (size_t page = 0; page < 2 * pages; ++page)
        memory.data()[page * pageSize()] = 1;
    // Untouched memory would fault at each of the 2048 pages; a sanitizer's own faults are few.
    QVERIFY(pageFaults() - before < long(pages / 4));
}

void tst_MirroredMemory::memory_isTouchedPieceByPiece()
{
#if defined(QTOVELMIXER_GUARD_LEFT_OUT)
    QSKIP("a sanitizer's own memory takes page faults");
#endif
    constexpr size_t pages = 1024;
    const long beforeAll = pageFaults();
    const MirroredMemory memory(pages * pageSize(), MirroredMemory::Mapped,
                                MirroredMemory::OnTouch);
    QVERIFY(memory.isMirrored());
    QVERIFY(pageFaults() - beforeAll < long(pages / 4));
    QCOMPARE(memory.data()[0], char(0));
    constexpr size_t piece = 5000; // neither whole pages nor a part of the size
    for (size_t first = 0; first < memory.size(); first += piece) {
        const size_t bytes = std::min(piece, memory.size() - first);
        memory.data()[first] = 7; // nothing that was written is lost
        memory.touch(first, piece);
        QCOMPARE(memory.data()[first], char(7));
        const long before = pageFaults();
        for (size_t place = first; place < first + bytes; place += 64) {
            memory.data()[place] = 1;
            memory.data()[place + memory.size()] = 2;
        }
        QCOMPARE(pageFaults(), before);
    }
    memory.touch(memory.size(), piece); // nothing is left
}

void tst_MirroredMemory::copied_isPlainMemoryOfTwiceTheSize()
{
    const MirroredMemory memory(1001, MirroredMemory::Copied);
    QVERIFY(!memory.isMirrored());
    QCOMPARE(memory.size(), size_t(1001));
    memory.data()[0] = 1;
    memory.data()[2001] = 2;
    QCOMPARE(memory.data()[1001], char(0));
    QCOMPARE(memory.data()[1000], char(0));
}

void tst_MirroredMemory::noBytes_giveNoMemory()
{
    for (const MirroredMemory::Way way : {MirroredMemory::Mapped, MirroredMemory::Copied}) {
        const MirroredMemory memory(0, way);
        QVERIFY(!memory.data());
        QCOMPARE(memory.size(), size_t(0));
    }
}

QTEST_GUILESS_MAIN(tst_MirroredMemory)
#include "tst_mirrored_memory.moc"
