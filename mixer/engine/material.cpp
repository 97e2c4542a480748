// SPDX-License-Identifier: MIT
// What is played: limits, selections, looping, and the states that are put aside.
#include <mixer/engine/engine_p.h>

#include <base/debug.h>
#include <mixer/io/source.h>

#include <memory>

namespace QTovelMixer {

Timeline *Engine::timeline() const
{
    return d->timeline;
}

bool Engine::isLooping() const
{
    return d->timeline->isLooping();
}

namespace {

/// Limits and selections stay as they are while something holds the stream.
bool mayEdit(const Engine::Data &data, const char *operation)
{
    return data.requireMainThread(operation) && data.streamUsers == 0;
}

} // namespace

void Engine::addSelection(double begin, double end)
{
    if (begin == end || !mayEdit(*d, "addSelection"))
        return;
    const MixChange change(*d, MixChange::KeepPosition);
    d->timeline->addSlice(begin, end);
}

void Engine::removeSelection(double begin, double end)
{
    if (!mayEdit(*d, "removeSelection"))
        return;
    const MixChange change(*d, MixChange::KeepPosition);
    d->timeline->removeSlice(begin, end);
}

void Engine::clearSelections()
{
    if (!mayEdit(*d, "clearSelections"))
        return;
    const MixChange change(*d, MixChange::KeepPosition);
    d->timeline->clearSlices();
}

void Engine::setLimits(double begin, double end)
{
    if (!mayEdit(*d, "setLimits"))
        return;
    const MixChange change(*d, MixChange::KeepPosition);
    d->timeline->setLimits(begin, end);
}

void Engine::expandLimits(double begin, double end)
{
    if (d->timeline->limitsExpanded(begin, end))
        setLimits(begin, end);
}

void Engine::collapsLimits(double begin, double end)
{
    if (d->timeline->limitsCollapsed(begin, end))
        setLimits(begin, end);
}

void Engine::setLooping(bool value)
{
    if (!d->requireMainThread("setLooping") || !d->active)
        return;
    {
        const MixChange change(*d, MixChange::KeepPosition);
        d->timeline->setLooping(value);
    }
    emit mixerChanged();
}

void Engine::reset()
{
    if (!d->requireMainThread("reset"))
        return;
    const MixChange change(*d, MixChange::Sources);
    d->timeline->reset();
}

// Saved states ----------------------------------------------------------------------------------

namespace {

// Sources that follow the outgoing timeline follow the incoming one.
void exchangeTimeline(Engine::Data &data, Timeline *incoming)
{
    Timeline *outgoing = data.timeline;
    const MixChange change(data, MixChange::Sources);
    const QList<Source *> sources = data.engine->activeSources();
    for (Source *source : sources) { // a hook of one may delete others
        if (data.contains(source) && source->timeline() == outgoing)
            source->setTimeline(incoming);
    }
    data.timeline = incoming;
}

} // namespace

bool Engine::save()
{
    if (!d->requireMainThread("save"))
        return false;
    if (!d->active) {
        BLDEBUG_Error(-1, "QTovelMixer::save: Can't save state on an inactive mixer.");
        return false;
    }
    if (d->running) {
        BLDEBUG_Error(-1, "QTovelMixer::save: Can't save state on a running mixer.");
        return false;
    }
    auto fresh = std::make_unique<Timeline>();
    d->savedStates.push_back({d->timeline, d->outputEffectBypass != 0, d->inputEffectBypass != 0});
    exchangeTimeline(*d, fresh.release());
    emit mixerChanged();
    return true;
}

bool Engine::restore()
{
    if (!d->requireMainThread("restore"))
        return false;
    if (!d->active) {
        BLDEBUG_Error(-1, "QTovelMixer::restore: Can't restore state on an inactive mixer.");
        return false;
    }
    if (d->running) {
        BLDEBUG_Error(-1, "QTovelMixer::restore: Can't restore state on a running mixer.");
        return false;
    }
    if (d->savedStates.empty()) {
        BLDEBUG_Error(-1, "QTovelMixer::restore: No saved state to restore!");
        return false;
    }
    const Data::SavedState state = d->savedStates.back();
    d->savedStates.pop_back();
    d->outputEffectBypass = state.outputBypass;
    d->inputEffectBypass = state.inputBypass;
    Timeline *outgoing = d->timeline;
    exchangeTimeline(*d, state.timeline);
    delete outgoing;
    emit mixerChanged();
    return true;
}

} // namespace QTovelMixer
