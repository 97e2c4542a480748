// SPDX-License-Identifier: MIT
// The device stream: who uses it, its watchdog, the meters that hang on it.
#include <mixer/engine/engine_p.h>

#include <base/log_line_p.h>
#include <base/trace_p.h>
#include <mixer/api/api.h>
#include <mixer/io/sink_p.h>
#include <mixer/io/source_p.h>
#include <mixer/meter/meter.h>

#include <QtCore/QDebug>
#include <QtCore/QThread>

#include <algorithm>
#include <new>

namespace QTovelMixer {

namespace {

constexpr unsigned long meterEndTimeout = 2000; // ms

void endMeter(Meter *meter)
{
    if (!meter)
        return;
    const QPointer<QThread> thread = meter->thread();
    const auto isElsewhere = [&thread] { return thread && thread != QThread::currentThread(); };
    try {
        meter->aboutToQuit();
    } catch (const std::bad_alloc &) {
        if (isElsewhere())
            thread->quit(); // without its last signal
    }
    if (isElsewhere())
        thread->wait(meterEndTimeout);
}

bool isLive(const Source *source)
{
    return !source->wasStoped();
}

bool isLive(const Sink *sink)
{
    return !SinkAccess::isOver(*sink);
}

bool works(const Source *source)
{
    return isLive(source) && SourceAccess::threadStarted(*source);
}

bool works(const Sink *sink)
{
    return isLive(sink) && SinkAccess::threadStarted(*sink);
}

template <typename Question>
bool anyUser(const Engine::Data &data, Question question)
{
    return std::any_of(data.sources.begin(), data.sources.end(), question) ||
           std::any_of(data.sinks.begin(), data.sinks.end(), question);
}

} // namespace

bool Engine::Data::apiRunning() const
{
    return api && api->isRunning();
}

bool Engine::Data::apiOpen() const
{
    return api && api->isOpen();
}

// A PulseAudio sink without other clients rests for up to 2 s after its first blocks.
bool Engine::Data::mayStillRest() const
{
    constexpr qint64 longestRest = 2500; // ms
    return api && api->backend() == Pulse && streamClock.isValid() &&
           streamClock.elapsed() < longestRest;
}

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

bool Engine::Data::openMixerApi(Device *output, Device *input, unsigned sampleRate)
{
    return api && api->openApi(output, input, sampleRate);
}

void Engine::Data::stopWatchdog()
{
    watchdogTimer->stop();
}

void Engine::Data::startMixerApi()
{
    traceStream("Engine::Data::startMixerApi BEGIN", *this);
    if (apiRunning()) {
        apiRefs = apiRefs < 1 ? 1 : apiRefs + 1;
    } else {
        if (api)
            api->start();
        if (apiRunning()) {
            apiRefs = 1;
            const int interval = engine->monitorTimerInverval();
            if (interval > 0) {
                const quint32 base = quint32(interval);
                const quint32 blocks =
                    rate() > 0 ? quint32(api->bufferFrames() * base * 10u) / rate() : 0u;
                watchdogClock.start();
                streamClock.start();
                watchdogTimer->start(int(std::max(base, blocks)));
            }
            lastSeenCallbackCount = callbackCount;
            isStallTold = false;
            wakeTrace();
            writeText(QtInfoMsg, "Mixer Api Started!");
        } else {
            apiRefs = 0;
            stopWatchdog();
            writeText(QtWarningMsg, "Mixer Api failed to start!");
            reportLostStream();
        }
    }
    traceStream("Engine::Data::startMixerApi END", *this);
}

void Engine::Data::stopMixerApi()
{
    traceStream("Engine::Data::stopMixerApi BEGIN", *this);
    if (!apiRunning()) {
        apiRefs = 0;
        stopWatchdog();
    } else if (apiRefs < 2 && streaming && active) {
        apiRefs = 0;
    } else if (apiRefs < 2) {
        apiRefs = 0;
        api->stop();
        stopWatchdog();
        writeText(QtInfoMsg, "Mixer Api Stopped!");
    } else {
        --apiRefs;
    }
    traceStream("Engine::Data::stopMixerApi END", *this);
}

void Engine::Data::closeMixerApi()
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

void Engine::Data::raiseApiRefs(int users)
{
    if (apiRunning())
        apiRefs = std::max(apiRefs, users);
}

bool Engine::Data::hasLiveUsers() const
{
    return anyUser(*this, [](const auto *object) { return isLive(object); });
}

bool Engine::Data::isBusy() const
{
    return isRunning() ||
           (active && anyUser(*this, [](const auto *object) { return works(object); }));
}

void Engine::Data::startStreamForUsers()
{
    if (!apiOpen() || apiRunning() || !(streaming || hasLiveUsers()))
        return;
    startMixerApi();
    if (apiRunning())
        apiRefs = users();
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

void Engine::Data::reportLostStream()
{
    callLater("onApiDeviceFailure", [this, generation = streamGeneration] {
        if (generation != streamGeneration || !active || apiRunning())
            return;
        // The backend may have seen the same: its report comes later.
        isLossTold = true;
        engine->onApiDeviceFailure();
    });
}

void Engine::Data::deleteMeters()
{
    TraceLine("Engine::Data::deleteMeters BEGIN")
        .item("inputMeter", inputMeter)
        .item("outputMeter", outputMeter);
    Meter *input = nullptr;
    Meter *output = nullptr;
    {
        const QMutexLocker locker(&updateLock);
        std::swap(input, inputMeter);
        std::swap(output, outputMeter);
    }
    endMeter(input);
    endMeter(output);
    TraceLine("Engine::Data::deleteMeters END")
        .item("inputMeter", inputMeter)
        .item("outputMeter", outputMeter);
}

} // namespace QTovelMixer
