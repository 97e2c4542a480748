// SPDX-License-Identifier: MIT
// Edits and questions: on whole cells against the slow model, else with any numbers at all.
#include <mixer/io/timeline_fixture.h>
#include <mixer/io/timeline_model.h>

#include "bytes.h"
#include "require.h"

#include <cmath>
#include <optional>

using namespace QTovelMixer;

namespace {

double seconds(int cell)
{
    return cell * TimelineModel::cellSeconds;
}

void checkSlices(const Timeline &timeline, const TimelineModel &model)
{
    Ranges expected;
    for (const TimelineModel::Stretch &stretch : model.stretches())
        expected.push_back({seconds(stretch.start), seconds(stretch.end)});
    Fuzz::require(slicesOf(timeline) == expected, "edits are as in the model");
    Fuzz::require(timeline.hasSlices() == model.sliced(), "slices count within the limits");
    Fuzz::require(passOf(timeline) == seconds(int(model.pass().size())), "the pass is as long");
}

void ask(const Timeline &timeline, const TimelineModel &model, int mixerCell, int asked, int span)
{
    const std::optional<int> cell = model.cellAt(mixerCell);
    const int pass = int(model.pass().size());
    // Without slices the end limit itself is a position, though it plays nothing.
    const bool atEnd = !model.sliced() && !model.looping && mixerCell == pass;
    const double position = cell ? seconds(*cell) : atEnd ? seconds(model.limitEnd) : -1.0;
    Fuzz::require(timeOf(timeline, seconds(mixerCell)) == position, "time");
    const bool known = model.sliced() || asked < model.limitEnd;
    Fuzz::require(timeline.mixer_time(seconds(asked)) ==
                      (known ? seconds(model.mixerCellOf(asked)) : timeline.duration()),
                  "mixer_time");
    const auto [start, length] = timeline.nextChunk(seconds(mixerCell), seconds(span), 44100, 0);
    Fuzz::require(start == (cell ? position : 0.0), "the next chunk's start");
    Fuzz::require(length == (cell ? seconds(std::min(span, model.run(*cell))) : 0.0),
                  "the next chunk's length");
    if (cell)
        Fuzz::require(timeline.maxBlockDuration(seconds(mixerCell)) == seconds(model.run(*cell)),
                      "maxBlockDuration");
}

void playWithModel(Fuzz::Bytes &bytes)
{
    Timeline timeline;
    TimelineModel model;
    model.limitStart = bytes.below(24);
    model.limitEnd = model.limitStart + 1 + bytes.below(TimelineModel::cells - 24);
    timeline.setLimits(seconds(model.limitStart), seconds(model.limitEnd));
    while (!bytes.atEnd()) {
        const int operation = bytes.below(8);
        const int a = bytes.below(TimelineModel::cells);
        int b = bytes.below(TimelineModel::cells + 1);
        b += a == b;
        if (operation < 3) {
            timeline.addSlice(seconds(a), seconds(b));
            model.add(std::min(a, b), std::max(a, b));
        } else if (operation == 3) {
            timeline.removeSlice(seconds(a), seconds(b));
            model.remove(std::min(a, b), std::max(a, b));
        } else if (operation == 4) {
            model.looping = a % 2;
            timeline.setLooping(model.looping);
        } else if (operation == 5 && a % 8 == 0) {
            timeline.clearSlices();
            model.clear();
        } else {
            ask(timeline, model, a * 2, b, 1 + a % 6);
        }
        checkSlices(timeline, model);
    }
}

/// A selection from a time to itself is one too; it plays nothing.
void checkRanges(const Ranges &ranges)
{
    double end = -infinite;
    for (const Range &range : ranges) {
        Fuzz::require(std::isfinite(range.start), "ranges begin at a time");
        Fuzz::require(end <= range.start && range.start <= range.end,
                      "ranges are sorted and disjoint");
        end = range.end;
    }
}

void askAnything(const Timeline &timeline, double a, double b, int rate)
{
    const auto [start, length] = timeline.nextChunk(a, b, rate, 0);
    for (const double answer :
         {timeline.time(a, true, 0.0, b), timeline.time(a, false, b, -1.0), timeline.mixer_time(a),
          timeline.currentChunkEnd(a), timeline.timeToLoop(a), timeline.maxBlockDuration(a), start,
          length})
        Fuzz::require(!std::isnan(answer), "an answer is a number");
    timeline.limitsExpanded(a, b);
    timeline.limitsCollapsed(a, b);
}

void playAnything(Fuzz::Bytes &bytes)
{
    Timeline timeline;
    while (!bytes.atEnd()) {
        const int operation = bytes.below(8);
        const double a = bytes.take<double>();
        const double b = bytes.take<double>();
        switch (operation) {
        case 0:
            timeline.setLimits(a, b);
            break;
        case 1:
        case 2:
            timeline.addSlice(a, b);
            break;
        case 3:
            timeline.removeSlice(a, b);
            break;
        case 4:
            timeline.setLooping(a > b);
            break;
        case 5:
            timeline.adjustLoopTime(a);
            break;
        default:
            askAnything(timeline, a, b, 1 + operation * 8000);
            break;
        }
        checkRanges(slicesOf(timeline));
        checkRanges(chunksOf(timeline));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    Fuzz::Bytes bytes(data, size);
    if (bytes.below(2) == 0)
        playWithModel(bytes);
    else
        playAnything(bytes);
    return 0;
}
