// SPDX-License-Identifier: MIT
// Blocks at the pace of the workers, for backends that no device paces.
#include <mixer/engine/engine_p.h>

#include <base/trace_p.h>
#include <mixer/io/sink.h>
#include <mixer/io/sink_p.h>
#include <mixer/io/source.h>
#include <mixer/io/source_p.h>

#include <algorithm>

namespace QTovelMixer {

namespace {

// When all that plays is over, the mix rests, while and after the main thread takes it out: how
// much silence followed would be a matter of chance.
bool hasMore(const Engine::Data &data) noexcept
{
    return data.monitoring.load() ||
           !std::all_of(data.sinks.begin(), data.sinks.end(),
                        [](const Sink *sink) { return SinkAccess::isOver(*sink); }) ||
           !std::all_of(data.sources.begin(), data.sources.end(),
                        [](const Source *source) { return SourceAccess::isOver(*source); });
}

// Workers look at their rings now and then only; whoever outruns them tells them to look.
void wakeWorkers(const EngineAttached &attached)
{
    const QMutexLocker locker(&attached.listLock);
    for (Source *source : attached.sources)
        SourceAccess::wake(*source);
    for (Sink *sink : attached.sinks)
        SinkAccess::wake(*sink);
}

} // namespace

bool Engine::Data::blockReady(unsigned frames) const noexcept
{
    return holdCount.load() == 0 && resuming.load() == 0 && hasMore(*this) &&
           std::all_of(
               sources.begin(), sources.end(),
               [frames](const Source *source) { return SourceAccess::isReady(*source, frames); }) &&
           std::all_of(sinks.begin(), sinks.end(),
                       [frames](const Sink *sink) { return SinkAccess::isReady(*sink, frames); });
}

int Engine::mixWhenReady(aligned_vector<float, 16> &input, aligned_vector<float, 16> &output,
                         unsigned int frames, double streamTime, int milliseconds) noexcept
{
    Q_UNUSED(streamTime)
    const auto mix = [&] {
        const AudioThreadMark mark;
        return d->mixerCallback(input, output, frames, 0, true);
    };
    int answer = mix();
    if (answer != BlockNotReady)
        return answer;
    const unsigned mark = d->gate.announce();
    answer = mix();
    if (answer == BlockNotReady) {
        wakeWorkers(*d);
        // Once only: whoever wakes the backend may want it to do something else.
        if (d->gate.wait(mark, milliseconds))
            answer = mix();
    }
    d->gate.leave();
    return answer;
}

void Engine::wakeMix()
{
    d->gate.post();
}

} // namespace QTovelMixer
