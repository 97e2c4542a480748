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

// When all that plays is over, the mix rests, while and after the main thread takes it out: how
// much silence followed would be a matter of chance.
bool Engine::Data::hasMore() const noexcept
{
    return monitoring.load() ||
           !std::all_of(sinks.begin(), sinks.end(),
                        [](const Sink *sink) { return SinkAccess::isOver(*sink); }) ||
           !std::all_of(sources.begin(), sources.end(),
                        [](const Source *source) { return SourceAccess::isOver(*source); });
}

bool Engine::Data::blockReady(unsigned frames) const noexcept
{
    return holdCount.load() == 0 && resuming.load() == 0 && hasMore() &&
           std::all_of(
               sources.begin(), sources.end(),
               [frames](const Source *source) { return SourceAccess::isReady(*source, frames); }) &&
           std::all_of(sinks.begin(), sinks.end(),
                       [frames](const Sink *sink) { return SinkAccess::isReady(*sink, frames); });
}

// A free-wheeling block keeps this lock from its look at the hold to its end: a source silenced
// in between would lose a block. Device threads do not take it.
void Engine::Data::raiseHold()
{
    const QMutexLocker locker(&holdLock);
    holdCount.fetch_add(1);
}

// Workers look at their rings now and then only; whoever outruns them tells them to look.
void Engine::Data::wakeWorkers()
{
    const QMutexLocker locker(&listLock);
    for (Source *source : sources)
        SourceAccess::wake(*source);
    for (Sink *sink : sinks)
        SinkAccess::wake(*sink);
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
        d->wakeWorkers();
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
