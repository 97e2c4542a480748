// SPDX-License-Identifier: MIT
#include <mixer/io/timeline.h>

#include <mixer/io/timeline_p.h>

#include "timeline_fixture.h"
#include "timeline_model.h"

#include <QtTest/QTest>

#include <cmath>
#include <optional>
#include <random>
#include <vector>

using namespace QTovelMixer;

namespace {

Ranges rangesOf(const std::vector<TimelineModel::Stretch> &stretches)
{
    Ranges result;
    for (const TimelineModel::Stretch &stretch : stretches)
        result.push_back(
            {stretch.start * TimelineModel::cellSeconds, stretch.end * TimelineModel::cellSeconds});
    return result;
}

} // namespace

class tst_timeline_model : public QObject
{
    Q_OBJECT

private slots:
    void model_agreesOnRandomEdits();
    void model_agreesOnRandomQueries();
    void model_agreesBetweenCells();
    void manyChunks_areFoundToTheBitAsOneByOne_data();
    void manyChunks_areFoundToTheBitAsOneByOne();
    void editsAmongManyChunks_leaveWhatAllAtOnceGives();
};

void tst_timeline_model::model_agreesOnRandomEdits()
{
    std::mt19937 random(20240611);
    const auto below = [&random](int bound) { return int(random() % unsigned(bound)); };
    for (int sequence = 0; sequence < 10000; ++sequence) {
        Timeline timeline;
        TimelineModel model;
        timeline.setLimits(0.0, 1000.0);
        const int size = 8 + below(TimelineModel::cells - 8);
        QString history = QStringLiteral("sequence %1:").arg(sequence);
        for (int edit = 0; edit < 12; ++edit) {
            int s = below(size);
            int e = below(size + 1);
            if (s == e)
                ++e;
            const bool add = below(3) != 0;
            history += QStringLiteral(" %1(%2,%3)").arg(add ? "add" : "remove").arg(s).arg(e);
            const double from = s * TimelineModel::cellSeconds;
            const double to = e * TimelineModel::cellSeconds;
            if (add) {
                timeline.addSlice(from, to);
                model.add(std::min(s, e), std::max(s, e));
            } else {
                timeline.removeSlice(from, to);
                model.remove(std::min(s, e), std::max(s, e));
            }
            const Ranges expected = rangesOf(model.stretches());
            if (slicesOf(timeline) != expected)
                QFAIL(qPrintable(history + " gives " + textOf(slicesOf(timeline)) + " not " +
                                 textOf(expected)));
        }
    }
}

namespace {

/// The same random timeline twice.
struct Pair
{
    Timeline timeline;
    TimelineModel model;

    explicit Pair(std::mt19937 &random)
    {
        const auto below = [&random](int bound) { return int(random() % unsigned(bound)); };
        model.limitStart = below(24);
        model.limitEnd = model.limitStart + 1 + below(TimelineModel::cells - 24);
        model.looping = below(2) == 0;
        timeline.setLooping(model.looping);
        timeline.setLimits(seconds(model.limitStart), seconds(model.limitEnd));
        for (int edits = below(6); edits > 0; --edits) {
            const int s = below(TimelineModel::cells - 8);
            const int e = s + 1 + below(7);
            timeline.addSlice(seconds(s), seconds(e));
            model.add(s, e);
        }
    }

    static double seconds(int cell) { return cell * TimelineModel::cellSeconds; }
};

} // namespace

void tst_timeline_model::model_agreesOnRandomQueries()
{
    std::mt19937 random(777);
    const auto below = [&random](int bound) { return int(random() % unsigned(bound)); };
    for (int round = 0; round < 2000; ++round) {
        const Pair pair(random);
        const TimelineModel &model = pair.model;
        const int pass = int(model.pass().size());
        QCOMPARE(passOf(pair.timeline), Pair::seconds(pass));
        QCOMPARE(pair.timeline.hasSlices(), model.sliced());
        for (int query = 0; query < 50; ++query) {
            const int mixerCell = below(2 * pass + 3);
            const double mixerTime = Pair::seconds(mixerCell);
            const std::optional<int> cell = model.cellAt(mixerCell);
            // Without slices the end limit itself is a position, though it plays nothing.
            const bool atEnd = !model.sliced() && !model.looping && mixerCell == pass;
            const double position = cell    ? Pair::seconds(*cell)
                                    : atEnd ? Pair::seconds(model.limitEnd)
                                            : -1.0;
            QCOMPARE(timeOf(pair.timeline, mixerTime), position);
            const double bound = Pair::seconds(model.sliced() ? model.limitStart : model.limitEnd);
            QCOMPARE(pair.timeline.time(mixerTime, true, 0.0, -1.0), cell ? position : bound);

            const int asked = below(TimelineModel::cells + 8);
            QCOMPARE(pair.timeline.mixer_time(Pair::seconds(asked)),
                     model.sliced() || asked < model.limitEnd
                         ? Pair::seconds(model.mixerCellOf(asked))
                         : pair.timeline.duration());

            const int span = 1 + below(6);
            const auto [start, length] =
                pair.timeline.nextChunk(mixerTime, Pair::seconds(span), 44100, 0);
            QCOMPARE(start, cell ? position : 0.0);
            QCOMPARE(length, cell ? Pair::seconds(std::min(span, model.run(*cell))) : 0.0);
            if (cell)
                QCOMPARE(pair.timeline.maxBlockDuration(mixerTime),
                         Pair::seconds(model.run(*cell)));

            const int relative = below(TimelineModel::cells);
            const int there = model.run(relative + model.limitStart);
            const double stored = there > 0 ? Pair::seconds(relative + there) : 0.0;
            QCOMPARE(pair.timeline.currentChunkEnd(Pair::seconds(relative)),
                     model.sliced() ? stored : Pair::seconds(model.limitEnd));

            if (cell) {
                int lastLength = 0;
                const std::vector<int> played = model.pass();
                for (int c = played.back(); model.run(c) > 0; --c)
                    lastLength = model.run(c);
                const bool inLast = *cell + model.run(*cell) == played.back() + 1;
                QCOMPARE(pair.timeline.timeToLoop(mixerTime),
                         Pair::seconds(inLast ? model.run(*cell) : lastLength));
            }
        }
    }
}

void tst_timeline_model::model_agreesBetweenCells()
{
    std::mt19937 random(4711);
    const auto below = [&random](int bound) { return int(random() % unsigned(bound)); };
    const int ticksPerCell = 24000;
    for (int round = 0; round < 1000; ++round) {
        Pair pair(random);
        const int pass = int(pair.model.pass().size());
        for (int query = 0; query < 50; ++query) {
            const int mixerCell = below(2 * pass + 2);
            const double into = (1 + below(ticksPerCell - 1)) * tick;
            const double mixerTime = Pair::seconds(mixerCell) + into;
            const std::optional<int> cell = pair.model.cellAt(mixerCell);
            const double expected = cell ? Pair::seconds(*cell) + into : -1.0;
            const double found = timeOf(pair.timeline, mixerTime);
            QVERIFY(qAbs(found - expected) < 1e-9);
            if (!cell)
                continue;
            QVERIFY(qAbs(pair.timeline.mixer_time(found) -
                         (Pair::seconds(pair.model.mixerCellOf(*cell)) + into)) < 1e-9);
            pair.timeline.adjustLoopTime(mixerTime);
            pair.timeline.setLooping(false);
            QVERIFY(qAbs(timeOf(pair.timeline, mixerTime) - expected) < 1e-9);
            pair.timeline.setLooping(pair.model.looping);
            pair.timeline.adjustLoopTime(0.0);
        }
    }
}

namespace {

/// Where a pass stands at a time, by taking off one chunk after another; -1 behind the last.
double walk(const Ranges &chunks, double time)
{
    for (const Range &chunk : chunks) {
        const double length = chunk.end - chunk.start;
        if (time < length)
            return time + chunk.start;
        time -= length;
    }
    return -1.0;
}

} // namespace

void tst_timeline_model::manyChunks_areFoundToTheBitAsOneByOne_data()
{
    QTest::addColumn<double>("every"); // seconds
    QTest::addColumn<double>("length");
    QTest::addColumn<bool>("random");
    QTest::newRow("50 ms of every 100") << 0.1 << 0.05 << false;
    QTest::newRow("quarters of a second") << 0.5 << 0.25 << false;
    QTest::newRow("lengths whose halves are ties") << 1.0 << 0.75 + 0x1p-43 << false;
    QTest::newRow("minutes") << 100.0 << 60.0 + 1.0 / 3.0 << false;
    QTest::newRow("days") << 86400.1 << 86400.0 / 7.0 << false;
    QTest::newRow("milliseconds") << 0.002 << 0.001 << false;
    QTest::newRow("any lengths") << 1.7 << 1.6 << true;
    QTest::newRow("any short lengths") << 0.03 << 0.02 << true;
}

void tst_timeline_model::manyChunks_areFoundToTheBitAsOneByOne()
{
    QFETCH(const double, every);
    QFETCH(const double, length);
    QFETCH(const bool, random);
    constexpr int count = 2000;
    std::mt19937_64 engine(7);
    std::uniform_real_distribution<double> part(0.0, 1.0);
    Timeline timeline;
    timeline.setLimits(0.0, every * count);
    for (int i = 0; i < count; ++i)
        timeline.addSlice(every * i, every * i + length * (random ? part(engine) : 1.0));
    const Ranges &chunks = chunksOf(timeline);
    QCOMPARE(chunks.size(), size_t(count));
    QCOMPARE(TimelineAccess::data(timeline).chunks.strideCount(),
             chunks.size() / ChunkList::strideLength);
    double sum = 0.0; // every boundary, and what lies beside it
    std::vector<double> times;
    for (const Range &chunk : chunks) {
        for (const double time :
             {sum, std::nextafter(sum, 0.0), std::nextafter(sum, infinite), part(engine) * every})
            times.push_back(time);
        sum += chunk.end - chunk.start;
    }
    QCOMPARE(passOf(timeline), sum);
    for (int i = 0; i < 20000; ++i)
        times.push_back(part(engine) * sum * 1.01);
    for (const double time : times) {
        const double expected = walk(chunks, time);
        if (timeOf(timeline, time) != expected)
            QFAIL(qPrintable(QStringLiteral("at %1: %2, not %3")
                                 .arg(time, 0, 'g', 17)
                                 .arg(timeOf(timeline, time), 0, 'g', 17)
                                 .arg(expected, 0, 'g', 17)));
    }
    double earlier = 0.0;
    for (const Range &chunk : chunks) {
        QCOMPARE(timeline.mixer_time(chunk.start), earlier);
        earlier += chunk.end - chunk.start;
    }
}

void tst_timeline_model::editsAmongManyChunks_leaveWhatAllAtOnceGives()
{
    std::mt19937 random(11);
    const auto below = [&random](int bound) { return int(random() % unsigned(bound)); };
    Timeline timeline;
    for (int edit = 0; edit < 4000; ++edit) {
        const double from = 0.1 * below(3000);
        const double to = from + 0.07 * (1 + below(edit % 500 == 0 ? 500 : 2));
        if (edit % 97 == 0)
            timeline.setLimits(0.1 * below(1000) - 5.0, 0.1 * (1000 + below(2000)));
        else if (below(4) == 0)
            timeline.removeSlice(from, to);
        else
            timeline.addSlice(from, to);
        const Ranges inPieces = chunksOf(timeline);
        const double pass = passOf(timeline);
        timeline.update();
        if (chunksOf(timeline) != inPieces || passOf(timeline) != pass)
            QFAIL(qPrintable(QStringLiteral("after edit %1").arg(edit)));
    }
    QVERIFY(slicesOf(timeline).size() > 500);
}

QTEST_GUILESS_MAIN(tst_timeline_model)
#include "tst_timeline_model.moc"
