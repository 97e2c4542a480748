// SPDX-License-Identifier: MIT
#include <mixer/engine/engine_p.h>

#include <base/log_line_p.h>
#include <base/trace_p.h>

#include <QtCore/QDebug>
#include <QtCore/QThread>

#include <algorithm>
#include <new>

namespace QTovelMixer {

namespace {

void traceStream(const char *event, const Engine::Data &data)
{
    TraceLine(event)
        .item("api", data.api.data())
        .item("apiRunning", data.apiRunning())
        .item("refs", data.apiRefs)
        .item("sources", quint64(data.sources.size()))
        .item("sinks", quint64(data.sinks.size()))
        .item("sampleRate", data.rate())
        .item("thread", QThread::currentThreadId());
}

} // namespace

bool EngineStream::openMixerApi(Device *output, Device *input, unsigned sampleRate)
{
    return api && api->openApi(output, input, sampleRate);
}

// After the stream has started: lets the watchdog look after its blocks.
void EngineStream::startWatchdog()
{
    const Engine::Data &d = whole(*this);
    const int interval = d.engine->monitorTimerInverval();
    if (interval > 0) {
        const quint32 base = quint32(interval);
        const quint32 rate = d.rate();
        const quint32 blocks = rate > 0 ? quint32(api->bufferFrames() * base * 10u) / rate : 0u;
        watchdogClock.start();
        streamClock.start();
        watchdogTimer->start(int(std::max(base, blocks)));
    }
    lastSeenCallbackCount = d.callbackCount;
    isStallTold = false;
}

void EngineStream::startMixerApi()
{
    traceStream("Engine::Data::startMixerApi BEGIN", whole(*this));
    const bool wasRunning = apiRunning();
    if (!wasRunning && api)
        api->start();
    if (wasRunning) {
        apiRefs = apiRefs < 1 ? 1 : apiRefs + 1;
    } else if (apiRunning()) {
        apiRefs = 1;
        startWatchdog();
        wakeTrace();
        writeText(QtInfoMsg, "Mixer Api Started!");
    } else {
        apiRefs = 0;
        stopWatchdog();
        writeText(QtWarningMsg, "Mixer Api failed to start!");
        reportLostStream();
    }
    traceStream("Engine::Data::startMixerApi END", whole(*this));
}

void EngineStream::stopMixerApi()
{
    traceStream("Engine::Data::stopMixerApi BEGIN", whole(*this));
    if (!apiRunning()) {
        apiRefs = 0;
        stopWatchdog();
    } else if (apiRefs < 2 && streaming && whole(*this).active) {
        apiRefs = 0;
    } else if (apiRefs < 2) {
        apiRefs = 0;
        api->stop();
        stopWatchdog();
        writeText(QtInfoMsg, "Mixer Api Stopped!");
    } else {
        --apiRefs;
    }
    traceStream("Engine::Data::stopMixerApi END", whole(*this));
}

void EngineStream::closeMixerApi()
{
    TraceLine("Engine::Data::closeMixerApi BEGIN")
        .item("api", api.data())
        .item("apiOpen", apiOpen());
    if (apiOpen()) {
        ++streamGeneration;
        apiRefs = 0;
        stopWatchdog();
        if (apiRunning())
            api->stop();
        api->closeApi();
    }
    TraceLine("Engine::Data::closeMixerApi END").item("api", api.data()).item("apiOpen", apiOpen());
}

void EngineStream::raiseApiRefs(int users)
{
    if (apiRunning())
        apiRefs = std::max(apiRefs, users);
}

void EngineStream::startStreamForUsers()
{
    const EngineAttached &attached = whole(*this);
    if (!apiOpen() || apiRunning() || !(streaming || attached.hasLiveUsers()))
        return;
    startMixerApi();
    if (apiRunning())
        apiRefs = attached.users();
}

void EngineStream::reportLostStream()
{
    Engine::Data &d = whole(*this);
    d.callLater("onApiDeviceFailure", [&d, generation = streamGeneration] {
        if (generation != d.streamGeneration || !d.active || d.apiRunning())
            return;
        // The backend may have seen the same: its report comes later.
        d.isLossTold = true;
        d.engine->onApiDeviceFailure();
    });
}

void EngineStream::closeDevice()
{
    Engine::Data &d = whole(*this);
    stopMixerApi();
    // A callback that is still running would wait for the lock that closing is done under.
    if (apiRunning())
        api->stop();
    d.outputName.clear();
    d.inputName.clear();
    {
        const QMutexLocker locker(&d.updateLock);
        closeMixerApi();
    }
    d.deleteMeters();
}

// A block that waits for a change of the mix to end cannot end before.
void EngineStream::releaseStream()
{
    Engine::Data &d = whole(*this);
    if (d.onMainThread() && d.changeDepth == 0) {
        stopMixerApi();
        return;
    }
    try {
        d.callLater("releaseStream", [this, generation = streamGeneration] {
            if (generation == streamGeneration)
                stopMixerApi();
        });
    } catch (const std::bad_alloc &) {
        owedStops = owedGeneration == streamGeneration ? owedStops + 1 : 1;
        owedGeneration = streamGeneration;
        d.cleanUpTimer->start();
    }
}

void EngineStream::releaseOwed()
{
    for (; owedStops > 0; --owedStops) {
        if (owedGeneration == streamGeneration)
            stopMixerApi();
    }
}

void Engine::setStreaming(bool value)
{
    if (!d->requireMainThread("setStreaming"))
        return;
    d->streaming = value;
    if (d->active)
        d->startStreamForUsers();
    // Without users nobody else would stop it.
    if (!value && d->apiRunning() && d->apiRefs < 1)
        d->stopMixerApi();
}

bool Engine::isStreaming() const
{
    return d->streaming;
}

// The watchdog ----------------------------------------------------------------------------------

// A PulseAudio sink without other clients rests for up to 2 s after its first blocks.
bool EngineStream::mayStillRest() const
{
    constexpr qint64 longestRest = 2500; // ms
    return api && api->backend() == Pulse && streamClock.isValid() &&
           streamClock.elapsed() < longestRest;
}

void Engine::monitorTimeout()
{
    const quint64 count = d->callbackCount;
    if (count != d->lastSeenCallbackCount) {
        d->lastSeenCallbackCount = count;
        d->isStallTold = false;
        return;
    }
    if (!d->isStallTold && d->apiRunning()) {
        d->isStallTold = true;
        const QPointer<Engine> alive(this);
        const unsigned generation = d->streamGeneration;
        emit deviceStalled(position());
        if (!alive || generation != d->streamGeneration || !d->isStallTold)
            return;
    }
    stop(false, StopReason::NoReason);
}

int Engine::monitorTimerInverval() const
{
    return 1000;
}

} // namespace QTovelMixer
