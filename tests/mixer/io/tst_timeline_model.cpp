// SPDX-License-Identifier: MIT
#include <mixer/io/timeline.h>

#include <mixer/io/timeline_p.h>

#include "timeline_fixture.h"
#include "timeline_model.h"

#include <QtTest/QTest>

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

QTEST_GUILESS_MAIN(tst_timeline_model)
#include "tst_timeline_model.moc"
