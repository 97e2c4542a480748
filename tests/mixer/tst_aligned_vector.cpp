// SPDX-License-Identifier: MIT
#include <mixer/aligned_vector.h>
#include <mixer/engine/buffer_access_p.h>

#include <QtTest/QTest>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <numeric>
#include <random>
#include <utility>
#include <vector>

using namespace QTovelMixer;

using FloatVector = aligned_vector<float, 16>;
using ShortVector = aligned_vector<short, 16>;

static_assert(sizeof(FloatVector) == 2 * sizeof(void *), "a handle is two words");
static_assert(sizeof(ShortVector) == 2 * sizeof(void *), "a handle is two words");
static_assert(std::is_nothrow_copy_constructible_v<FloatVector>);
static_assert(std::is_nothrow_copy_assignable_v<FloatVector>);

namespace {

constexpr float untouched = -77.0f;

bool isAligned(const void *p, std::uintptr_t alignment)
{
    return reinterpret_cast<std::uintptr_t>(p) % alignment == 0;
}

/// All of the capacity, whatever the size.
void setAll(FloatVector &vector, float value)
{
    std::fill_n(vector.data(), vector.capacity(), value);
}

FloatVector counting(std::size_t n)
{
    FloatVector vector(n);
    setAll(vector, untouched);
    std::iota(vector.begin(), vector.end(), 1.0f);
    return vector;
}

/// How many samples from the start differ from `untouched`; none may differ behind them.
std::size_t touched(const FloatVector &vector)
{
    std::size_t count = 0;
    while (count < vector.capacity() && vector.data()[count] != untouched)
        ++count;
    for (std::size_t i = count; i < vector.capacity(); ++i) {
        if (vector.data()[i] != untouched)
            return vector.capacity() + 1;
    }
    return count;
}

std::size_t wholeGroups(std::size_t n)
{
    return (n + 3) / 4 * 4;
}

} // namespace

class tst_AlignedVector : public QObject
{
    Q_OBJECT

private slots:
    void constructor_hasNoStorage_byDefault();
    void constructor_allocatesSpareSamples();
    void constructor_alignsEverySize();
    void constructor_refusesWhatNoMemoryHolds();
    void constructor_wrapsInPlace_whenAligned();
    void constructor_wrapsInPlace_whenUnalignedWithoutCopy();
    void constructor_copies_whenUnalignedWithCopy();
    void copy_sharesTheBlock();
    void copy_keepsTheBlock_whenTheFirstHandleGoes();
    void access_reachesEverySample();
    void zero_clearsExactlySize();
    void zeroRange_comparesAsWritten();
    void copyContents_ignoresOwnSize();
    void copyContents_stopsAtCapacity();
    void assignValue_coversWholeGroups();
    void addValue_coversWholeGroups();
    void multiplyValue_coversWholeGroups();
    void addVector_coversEightOfSixAndTen();
    void addVector_coversTheSmallerSize();
    void multiplyVector_coversTheSmallerSize();
    void madd_coversItsOwnSize();
    void madd_roundsTwice();
    void madd_worksOnItself();
    void arithmetic_staysInside_whenWrapped();
    void arithmetic_worksAtAnyAddress();
    void arithmetic_doesNothing_withoutStorage();
    void setSize_staysWithinCapacity();
    void shorts_shareWrapAndClear();
    void shorts_calculateInWholeGroups();
    void shorts_touchNothingBehindTheLastGroup_data();
    void shorts_touchNothingBehindTheLastGroup();
};

void tst_AlignedVector::constructor_hasNoStorage_byDefault()
{
    FloatVector vector;
    QVERIFY(!vector.data());
    QVERIFY(!vector.constData());
    QCOMPARE(vector.size(), std::size_t(0));
    QCOMPARE(vector.capacity(), std::size_t(0));
    QVERIFY(vector.begin() == vector.end());
    vector.zero();
    vector.zero(0, 10);
}

void tst_AlignedVector::constructor_allocatesSpareSamples()
{
    const FloatVector vector(100);
    QCOMPARE(vector.size(), std::size_t(100));
    QCOMPARE(vector.capacity(), std::size_t(132));
    for (std::size_t i = 0; i < vector.capacity(); ++i)
        QCOMPARE(vector.data()[i], 0.0f);
    const FloatVector empty(0);
    QVERIFY(empty.data());
    QCOMPARE(empty.size(), std::size_t(0));
    QCOMPARE(empty.capacity(), std::size_t(32));
}

void tst_AlignedVector::constructor_alignsEverySize()
{
    for (std::size_t n = 0; n < 200; ++n)
        QVERIFY(isAligned(FloatVector(n).data(), 64));
}

void tst_AlignedVector::constructor_refusesWhatNoMemoryHolds()
{
    constexpr std::size_t all = std::numeric_limits<std::size_t>::max();
    QVERIFY_THROWS_EXCEPTION(std::bad_alloc, FloatVector{all});
    QVERIFY_THROWS_EXCEPTION(std::bad_alloc, FloatVector{all / 4 - 7});
}

void tst_AlignedVector::constructor_wrapsInPlace_whenAligned()
{
    alignas(16) float memory[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    for (const bool copy : {false, true}) {
        {
            FloatVector vector(memory, 10, copy);
            QCOMPARE(vector.data(), memory);
            QCOMPARE(vector.size(), std::size_t(10));
            QCOMPARE(vector.capacity(), std::size_t(10));
            vector[3] = 44.0f;
        }
        QCOMPARE(memory[3], 44.0f);
        memory[3] = 4.0f;
    }
}

void tst_AlignedVector::constructor_wrapsInPlace_whenUnalignedWithoutCopy()
{
    alignas(16) float memory[12] = {};
    FloatVector vector(memory + 1, 10, false);
    QCOMPARE(vector.data(), memory + 1);
    QCOMPARE(vector.capacity(), std::size_t(10));
}

void tst_AlignedVector::constructor_copies_whenUnalignedWithCopy()
{
    alignas(16) float memory[12] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
    FloatVector vector(memory + 1, 10, true);
    QVERIFY(vector.data() != memory + 1);
    QVERIFY(isAligned(vector.data(), 16));
    QCOMPARE(vector.size(), std::size_t(10));
    QCOMPARE(vector.capacity(), std::size_t(42));
    for (int i = 0; i < 10; ++i)
        QCOMPARE(vector[i], float(i + 1));
    vector[0] = 99.0f;
    QCOMPARE(memory[1], 1.0f);
}

void tst_AlignedVector::copy_sharesTheBlock()
{
    FloatVector first(8);
    FloatVector second = first;
    FloatVector third;
    third = second;
    third[5] = 0.5f;
    QCOMPARE(first[5], 0.5f);
    QCOMPARE(second.data(), first.data());
    BufferAccess::setSize(first, 4);
    QCOMPARE(third.size(), std::size_t(4));
}

void tst_AlignedVector::copy_keepsTheBlock_whenTheFirstHandleGoes()
{
    FloatVector kept;
    {
        FloatVector first(3);
        first[2] = 2.5f;
        kept = first;
    }
    QCOMPARE(kept[2], 2.5f);
}

void tst_AlignedVector::access_reachesEverySample()
{
    FloatVector vector = counting(7);
    const FloatVector &constant = vector;
    QCOMPARE(vector.end() - vector.begin(), std::ptrdiff_t(7));
    QCOMPARE(constant.end(), constant.data() + 7);
    QCOMPARE(constant.begin(), constant.constData());
    QCOMPARE(constant[6], 7.0f);
    vector[6] = 8.0f;
    QCOMPARE(*(vector.end() - 1), 8.0f);
}

void tst_AlignedVector::zero_clearsExactlySize()
{
    for (std::size_t n = 0; n < 20; ++n) {
        FloatVector vector = counting(n);
        vector.zero();
        for (std::size_t i = 0; i < vector.capacity(); ++i)
            QCOMPARE(vector.data()[i], i < n ? 0.0f : untouched);
    }
}

void tst_AlignedVector::zeroRange_comparesAsWritten()
{
    constexpr std::size_t none = 99;
    constexpr struct
    {
        std::size_t from, to, first, last;
    } cases[] = {
        {5, 3, none, none},
        {10, 20, none, none},
        {11, 20, none, none},
        {2, 1000, 2, 9},
        {0, 10, 0, 9},
        {3, 3, none, none},
        {3, 4, 3, 3},
        {9, 10, 9, 9},
        {0, 0, none, none},
        {9, 11, 9, 9},
        {0, std::size_t(-1), 0, 9},
        {10, 10, none, none},
        {std::size_t(-1), std::size_t(-1), none, none},
    };
    for (const auto &test : cases) {
        FloatVector vector = counting(10);
        vector.zero(test.from, test.to);
        for (std::size_t i = 0; i < vector.capacity(); ++i) {
            const float before = i < 10 ? float(i + 1) : untouched;
            const bool cleared = test.first != none && i >= test.first && i <= test.last;
            QCOMPARE(vector.data()[i], cleared ? 0.0f : before);
        }
    }
}

void tst_AlignedVector::copyContents_ignoresOwnSize()
{
    const FloatVector from = counting(10);
    FloatVector to(6);
    setAll(to, untouched);
    to.copyContents(from);
    QCOMPARE(to.size(), std::size_t(6));
    QCOMPARE(touched(to), std::size_t(10));
    for (int i = 0; i < 10; ++i)
        QCOMPARE(to[i], float(i + 1));

    FloatVector longer(20);
    setAll(longer, untouched);
    longer.copyContents(from);
    QCOMPARE(touched(longer), std::size_t(10));
    longer.copyContents(FloatVector());
    QCOMPARE(touched(longer), std::size_t(10));
}

void tst_AlignedVector::copyContents_stopsAtCapacity()
{
    alignas(16) float memory[8];
    std::fill(std::begin(memory), std::end(memory), untouched);
    FloatVector wrapped(memory, 5, false);
    wrapped.copyContents(counting(10));
    for (int i = 0; i < 8; ++i)
        QCOMPARE(memory[i], i < 5 ? float(i + 1) : untouched);
    FloatVector none;
    none.copyContents(counting(10));
    QVERIFY(!none.data());
}

void tst_AlignedVector::assignValue_coversWholeGroups()
{
    for (std::size_t n = 0; n < 70; ++n) {
        FloatVector vector(n);
        setAll(vector, untouched);
        vector = 0.25f;
        QCOMPARE(touched(vector), wholeGroups(n));
        for (std::size_t i = 0; i < wholeGroups(n); ++i)
            QCOMPARE(vector.data()[i], 0.25f);
    }
}

void tst_AlignedVector::addValue_coversWholeGroups()
{
    for (std::size_t n = 0; n < 70; ++n) {
        FloatVector vector = counting(n);
        vector += 0.5f;
        QCOMPARE(touched(vector), wholeGroups(n));
        for (std::size_t i = 0; i < n; ++i)
            QCOMPARE(vector.data()[i], float(i + 1) + 0.5f);
        for (std::size_t i = n; i < wholeGroups(n); ++i)
            QCOMPARE(vector.data()[i], untouched + 0.5f);
    }
}

void tst_AlignedVector::multiplyValue_coversWholeGroups()
{
    for (std::size_t n = 0; n < 70; ++n) {
        FloatVector vector = counting(n);
        vector *= 3.0f;
        QCOMPARE(touched(vector), wholeGroups(n));
        for (std::size_t i = 0; i < n; ++i)
            QCOMPARE(vector.data()[i], float(i + 1) * 3.0f);
    }
}

void tst_AlignedVector::addVector_coversEightOfSixAndTen()
{
    for (const auto &[left, right] : {std::pair(6, 10), {10, 6}}) {
        FloatVector a{std::size_t(left)};
        FloatVector b{std::size_t(right)};
        setAll(a, untouched);
        setAll(b, 2.0f);
        a += b;
        QCOMPARE(touched(a), std::size_t(8));
        for (int i = 0; i < 8; ++i)
            QCOMPARE(a[i], untouched + 2.0f);
    }
}

void tst_AlignedVector::addVector_coversTheSmallerSize()
{
    for (std::size_t n = 0; n < 40; ++n) {
        for (std::size_t m = 0; m < 40; ++m) {
            FloatVector a = counting(n);
            const FloatVector b = counting(m);
            a += b;
            const std::size_t common = std::min(n, m);
            for (std::size_t i = 0; i < n; ++i) {
                const float own = float(i + 1);
                const float other = i < m ? own : untouched;
                QCOMPARE(a.data()[i], i < wholeGroups(common) ? own + other : own);
            }
            for (std::size_t i = std::max(n, wholeGroups(common)); i < a.capacity(); ++i)
                QCOMPARE(a.data()[i], untouched);
        }
    }
}

void tst_AlignedVector::multiplyVector_coversTheSmallerSize()
{
    FloatVector a(10);
    FloatVector b(6);
    setAll(a, 3.0f);
    setAll(b, 0.5f);
    a *= b;
    for (std::size_t i = 0; i < a.capacity(); ++i)
        QCOMPARE(a.data()[i], i < 8 ? 1.5f : 3.0f);
    setAll(a, 3.0f);
    b *= a;
    for (std::size_t i = 0; i < b.capacity(); ++i)
        QCOMPARE(b.data()[i], i < 8 ? 1.5f : 0.5f);
}

void tst_AlignedVector::madd_coversItsOwnSize()
{
    for (std::size_t n = 0; n < 40; ++n) {
        // Shorter or longer, the other one's size plays no part.
        for (const std::size_t m : {std::size_t(8), std::size_t(100)}) {
            FloatVector sum(n);
            setAll(sum, untouched);
            FloatVector x(m);
            setAll(x, 4.0f);
            sum.madd(0.5f, x);
            QCOMPARE(touched(sum), wholeGroups(n));
            for (std::size_t i = 0; i < wholeGroups(n); ++i)
                QCOMPARE(sum.data()[i], untouched + 2.0f);
        }
    }
}

void tst_AlignedVector::madd_roundsTwice()
{
    std::mt19937 random(7);
    std::uniform_real_distribution<float> value(-1.0f, 1.0f);
    FloatVector sum(1001);
    FloatVector x(1001);
    std::vector<float> expected(1001);
    const float gain = 0.7071067f;
    for (int i = 0; i < 1001; ++i) {
        sum[i] = value(random);
        x[i] = value(random);
        const volatile float product = gain * x[i];
        expected[std::size_t(i)] = sum[i] + product;
    }
    sum.madd(gain, x);
    QVERIFY(std::equal(sum.begin(), sum.end(), expected.begin()));
}

void tst_AlignedVector::madd_worksOnItself()
{
    FloatVector vector = counting(9);
    vector.madd(1.0f, vector);
    vector += vector;
    vector *= vector;
    for (int i = 0; i < 9; ++i)
        QCOMPARE(vector[i], 16.0f * float((i + 1) * (i + 1)));
}

void tst_AlignedVector::arithmetic_staysInside_whenWrapped()
{
    for (std::size_t n = 0; n < 40; ++n) {
        alignas(16) float memory[48];
        std::fill(std::begin(memory), std::end(memory), untouched);
        FloatVector wrapped(memory, n, false);
        FloatVector other(64);
        setAll(other, 2.0f);
        wrapped = 1.0f;
        wrapped += 1.0f;
        wrapped *= 3.0f;
        wrapped += other;
        wrapped *= other;
        wrapped.madd(4.0f, other);
        for (std::size_t i = 0; i < std::size(memory); ++i)
            QCOMPARE(memory[i], i < n ? 24.0f : untouched);

        // The wrapped one as the other operand: what lies behind it is not read.
        std::fill(std::begin(memory) + n, std::end(memory),
                  std::numeric_limits<float>::signaling_NaN());
        FloatVector sum(64);
        sum = 1.0f;
        sum.madd(1.0f, wrapped);
        for (std::size_t i = 0; i < 64; ++i)
            QCOMPARE(sum.data()[i], i < n ? 25.0f : 1.0f);
    }
}

void tst_AlignedVector::arithmetic_worksAtAnyAddress()
{
    alignas(64) float memory[80];
    for (std::size_t offset = 0; offset < 16; ++offset) {
        std::fill(std::begin(memory), std::end(memory), 1.0f);
        FloatVector wrapped(memory + offset, 61, false);
        wrapped *= 2.0f;
        wrapped.madd(0.5f, wrapped);
        for (std::size_t i = 0; i < std::size(memory); ++i)
            QCOMPARE(memory[i], i >= offset && i < offset + 61 ? 3.0f : 1.0f);
    }
}

void tst_AlignedVector::arithmetic_doesNothing_withoutStorage()
{
    FloatVector none;
    FloatVector some = counting(10);
    none = 1.0f;
    none += 1.0f;
    none *= 2.0f;
    none += some;
    none *= some;
    none.madd(1.0f, some);
    QVERIFY(!none.data());
    some += none;
    some *= none;
    some.madd(1.0f, none);
    for (int i = 0; i < 10; ++i)
        QCOMPARE(some[i], float(i + 1));
}

void tst_AlignedVector::setSize_staysWithinCapacity()
{
    FloatVector vector(10);
    BufferAccess::setSize(vector, 4);
    QCOMPARE(vector.size(), std::size_t(4));
    QCOMPARE(vector.capacity(), std::size_t(42));
    BufferAccess::setSize(vector, 42);
    QCOMPARE(vector.size(), std::size_t(42));
    BufferAccess::setSize(vector, 1000);
    QCOMPARE(vector.size(), std::size_t(42));
    BufferAccess::setSize(vector, 0);
    QCOMPARE(vector.size(), std::size_t(0));
    FloatVector none;
    BufferAccess::setSize(none, 5);
    QCOMPARE(none.size(), std::size_t(0));
}

void tst_AlignedVector::shorts_shareWrapAndClear()
{
    ShortVector vector(10);
    QCOMPARE(vector.size(), std::size_t(10));
    QCOMPARE(vector.capacity(), std::size_t(42));
    QVERIFY(isAligned(vector.data(), 16));
    std::fill(vector.begin(), vector.end(), short(5));
    ShortVector shared = vector;
    shared.zero(2, 1000);
    QCOMPARE(vector[1], short(5));
    QCOMPARE(vector[2], short(0));
    QCOMPARE(vector[9], short(0));

    alignas(16) short memory[16] = {1, 2, 3, 4, 5, 6, 7, 8};
    ShortVector aligned(memory, 8, true);
    QCOMPARE(aligned.data(), memory);
    ShortVector copied(memory + 1, 7, true);
    QVERIFY(copied.data() != memory + 1);
    QCOMPARE(copied[6], short(8));
    vector.copyContents(aligned);
    QCOMPARE(vector[7], short(8));
    QCOMPARE(vector[8], short(0));
    vector.zero();
    QCOMPARE(vector[0], short(0));
    QVERIFY(!ShortVector().data());
}

void tst_AlignedVector::shorts_calculateInWholeGroups()
{
    ShortVector vector(5);
    ShortVector other(6);
    other = 3;
    vector = 10;
    vector += 5;
    vector *= 2;
    vector += other;
    vector *= other;
    vector.madd(-9, other);
    for (std::size_t i = 0; i < vector.capacity(); ++i)
        QCOMPARE(vector.data()[i], short(i < 8 ? 72 : 0));
}

void tst_AlignedVector::shorts_touchNothingBehindTheLastGroup_data()
{
    using Change = std::function<void(ShortVector &, const ShortVector &)>;
    QTest::addColumn<Change>("change");
    QTest::addColumn<short>("expected");
    const auto row = [](const char *name, Change change, short expected) {
        QTest::newRow(name) << std::move(change) << expected;
    };
    row(
        "=", [](ShortVector &x, const ShortVector &) { x = 9; }, 9);
    row(
        "+= value", [](ShortVector &x, const ShortVector &) { x += 5; }, 7);
    row(
        "*= value", [](ShortVector &x, const ShortVector &) { x *= 5; }, 10);
    row(
        "+=", [](ShortVector &x, const ShortVector &y) { x += y; }, 5);
    row(
        "*=", [](ShortVector &x, const ShortVector &y) { x *= y; }, 6);
    row(
        "madd", [](ShortVector &x, const ShortVector &y) { x.madd(5, y); }, 17);
}

void tst_AlignedVector::shorts_touchNothingBehindTheLastGroup()
{
    QFETCH(const std::function<void(ShortVector &, const ShortVector &)>, change);
    QFETCH(const short, expected);
    ShortVector vector(5);
    ShortVector other(5);
    std::fill_n(vector.data(), vector.capacity(), short(2));
    std::fill_n(other.data(), other.capacity(), short(3));
    change(vector, other);
    QVERIFY(vector.capacity() > 8);
    for (std::size_t i = 0; i < vector.capacity(); ++i)
        QCOMPARE(vector.data()[i], i < 8 ? expected : short(2));
}

QTEST_GUILESS_MAIN(tst_AlignedVector)
#include "tst_aligned_vector.moc"
