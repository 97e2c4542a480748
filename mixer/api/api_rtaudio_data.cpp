// SPDX-License-Identifier: MIT
// The instance behind the backend: calling it, losing it, replacing it.
#include <mixer/api/api_rtaudio_p.h>

#include <base/log_line_p.h>
#include <base/trace_p.h>

#include <QtCore/QDebug>
#include <QtCore/QElapsedTimer>
#include <QtCore/QThread>

#include <algorithm>
#include <mutex>
#include <utility>

#if defined(__unix__) || defined(__APPLE__)
#include <sched.h>
#endif

using QTovelMixer::Answer;
using QTovelMixer::attempt;
using QTovelMixer::RtAudioDriver;
using QTovelMixer::RtAudioInstance;
using QTovelMixer::RtAudioProbe;
using QTovelMixer::stopTimeout;
using QTovelMixer::TraceLine;

namespace {

constexpr qint64 patience = 2000;        // ms that slow calls together may take
constexpr qint64 quick = 250;            // ms of a call that count for nothing
constexpr int makeTimeout = 200;         // ms that a fresh instance gets in any case
constexpr int inFlightChecks = 100;      // 1 ms apart
constexpr qint64 jackStuckTime = 10'000; // ms
constexpr int goneTimeout = 2000;        // ms for a callback to leave a backend that is deleted

// The instance outlives its own jobs.
RtAudioInstance::Job aborting(RtAudioInstance *instance, const std::shared_ptr<Answer> &answer)
{
    return [instance, answer](RtAudioDriver &driver) {
        if (instance->awaitLife())
            *answer = attempt(driver, [&] { return driver.abortStream(); });
    };
}

RtAudioInstance::Job closing(const std::shared_ptr<Answer> &answer)
{
    return [answer](RtAudioDriver &driver) {
        *answer = attempt(driver, [&] {
            driver.closeStream();
            return RTAUDIO_NO_ERROR;
        });
    };
}

} // namespace

bool QTovelMixer::logFailure(const Answer &answer, const char *operation, const char *call)
{
    if (answer.threw)
        QTovelMixer::writeWarning("QTovelMixerApiRtAudio::%s: RtAudio :: %s exception received!",
                                  operation, call);
    else if (answer.failed())
        QTovelMixer::writeWarning("QTovelMixerApiRtAudio::%s: %s", operation, answer.text.c_str());
    return answer.failed();
}

QTovelMixerApiRtAudio::RtAudioData::RtAudioData(QTovelMixerApiRtAudio *backend, RtAudio::Api wanted,
                                                QFlags<Option> flags)
    : q(backend), api(wanted), options(flags)
{
#if defined(QTOVELMIXER_SYSTEM_RTAUDIO)
    static std::once_flag told;
    std::call_once(told, [] {
        QTovelMixer::writeWarning(
            "QTovelMixerApiRtAudio: built on the system's RtAudio: on PulseAudio surround "
            "channels may be exchanged, and more than 6 channels may not open");
    });
#endif
}

void QTovelMixerApiRtAudio::RtAudioData::makeInstance()
{
    if (api != RtAudio::UNSPECIFIED && !QTovelMixer::isCompiled(api)) {
        QTovelMixer::writeWarning(
            "QTovelMixerApiRtAudio::Data: RtAudio was not compiled with this interface");
        return;
    }
    const qint64 left = deadline(QTovelMixer::openTimeout).remainingTime();
    const auto made =
        RtAudioInstance::make(api, QDeadlineTimer(std::max<qint64>(left, makeTimeout)));
    if (made.threw)
        QTovelMixer::writeWarning(
            "QTovelMixerApiRtAudio::Data: RtAudio :: RtAudio : exception received!");
    else if (!made.instance)
        QTovelMixer::writeWarning("QTovelMixerApiRtAudio::Data: RtAudio does not answer");
    audio = made.instance;
    ++generation;
    if (audio)
        api = audio->api();
    apiInUse = audio ? int(api) : -1;
    attach();
}

void QTovelMixerApiRtAudio::RtAudioData::attach()
{
    if (audio)
        audio->attach(this);
}

// Calls with a deadline -------------------------------------------------------------------------

QDeadlineTimer QTovelMixerApiRtAudio::RtAudioData::deadline(int timeout) const
{
    return QDeadlineTimer(std::clamp<qint64>(patience - timeLost, 0, timeout), Qt::PreciseTimer);
}

void QTovelMixerApiRtAudio::RtAudioData::lose(qint64 milliseconds)
{
    timeLost += milliseconds;
    QMetaObject::invokeMethod(
        q, [this] { timeLost = 0; }, Qt::QueuedConnection);
}

void QTovelMixerApiRtAudio::RtAudioData::giveUpThisTurn()
{
    lose(patience);
}

// JACK's library does not bear calls beside one that hangs in it: when the server then dies, the
// process does. One that hangs for long will hang for ever.
bool QTovelMixerApiRtAudio::RtAudioData::isJackStuck() const
{
    if (api != RtAudio::UNIX_JACK)
        return false;
    return std::any_of(orphans.begin(), orphans.end(), [](const Orphan &orphan) {
        const std::shared_ptr<Instance> stuck = orphan.instance.lock();
        return stuck && !stuck->hasEnded() && orphan.since.elapsed() < jackStuckTime;
    });
}

void QTovelMixerApiRtAudio::RtAudioData::addOrphan(const std::shared_ptr<Instance> &instance)
{
    std::erase_if(orphans, [](const Orphan &orphan) { return orphan.instance.expired(); });
    orphans.push_back({instance, QElapsedTimer()});
    orphans.back().since.start();
}

void QTovelMixerApiRtAudio::RtAudioData::waitForOrphans()
{
    for (const Orphan &orphan : orphans) {
        if (const std::shared_ptr<Instance> instance = orphan.instance.lock())
            instance->detach(goneTimeout);
    }
}

bool QTovelMixerApiRtAudio::RtAudioData::call(Instance::Job job, int timeout)
{
    QElapsedTimer clock;
    clock.start();
    const bool back = audio->call(std::move(job), deadline(timeout));
    const qint64 time = clock.elapsed();
    if (!back || time > quick)
        lose(back ? time - quick : time);
    return back;
}

bool QTovelMixerApiRtAudio::RtAudioData::callOrReplace(Instance::Job job, int timeout)
{
    // Nothing is asked when there is no time to wait for the answer.
    if (timeLost >= patience || isJackStuck())
        return false;
    if (call(std::move(job), timeout))
        return true;
    replaceWedged();
    return false;
}

RtAudioProbe QTovelMixerApiRtAudio::RtAudioData::probe()
{
    const auto probing = [](const std::shared_ptr<RtAudioProbe> &answer) {
        return [answer](RtAudioDriver &driver) { *answer = QTovelMixer::probeDevices(driver); };
    };
    const auto listed = std::make_shared<RtAudioProbe>();
    const bool again = audio->wasProbed();
    if (!callOrReplace(probing(listed), QTovelMixer::openTimeout))
        return {};
    if (!listed->answered)
        giveUpThisTurn();
    // A JACK client whose server died in silence does not survive a probe: it is left.
    if (api == RtAudio::UNIX_JACK && audio->isOpen() && listed->devices.empty()) {
        audio->abandon();
        replaceWedged();
        q->reportDeviceFailure();
        return *listed;
    }
    audio->setProbed();
    if (!again || listed->devices.empty())
        return *listed;
    const QDeadlineTimer until = deadline(QTovelMixer::openTimeout);
    // Numbers are those of the instance that is in use; who is the default only a new one knows.
    const std::shared_ptr<RtAudioInstance> fresh = RtAudioInstance::make(api, until).instance;
    const auto defaults = std::make_shared<RtAudioProbe>();
    if (fresh && fresh->call(probing(defaults), until))
        QTovelMixer::adoptDefaults(listed->devices, defaults->devices);
    if (!fresh || !fresh->end(fresh->isStuck() ? QDeadlineTimer(0) : until)) {
        if (fresh)
            addOrphan(fresh);
        giveUpThisTurn();
    }
    return *listed;
}

// The stream ------------------------------------------------------------------------------------

void QTovelMixerApiRtAudio::RtAudioData::adoptStream(const Opened &opened)
{
    inputChannels = opened.inputChannels;
    outputChannels = opened.outputChannels;
    streamRate = opened.rate;
    buffers = opened.buffers;
    audio->setUsed();
    audio->outputChannels = outputChannels;
    audio->inputBlock = std::make_shared<Block>(size_t(opened.frames) * inputChannels);
    audio->outputBlock = std::make_shared<Block>(size_t(opened.frames) * outputChannels);
    inputBlock = audio->inputBlock.get();
    outputBlock = audio->outputBlock.get();
    streaming = audio.get();
    for (auto *counter : {&blocks, &overflows, &underflows, &droppedBlocks, &lateBlocks})
        *counter = 0;
    droppedByEngine = q->blocksDroppedByEngine();
    q->setBufferFrames(opened.frames);
}

void QTovelMixerApiRtAudio::RtAudioData::abortRunning()
{
    closing = 1;
    audio->setStarted(false);
    const auto answer = std::make_shared<Answer>();
    TraceLine("RtAudio::stop pre-abortStream").item("api", q);
    if (audio->mustBeLeft())
        audio->leave();
    const bool back = !audio->isStuck() && call(aborting(audio.get(), answer), stopTimeout);
    TraceLine("RtAudio::stop post-abortStream").item("api", q);
    if (back && QTovelMixer::logFailure(*answer, "stop", "stopStream:"))
        noteError(answer->text);
    waitForCallbacks();
    if (back && audio->mustBeLeft())
        audio->leave();
    const bool wedged = audio->isStuck() || audio->isRunning();
    if (wedged)
        audio->detach(0);
    closing = 0;
    if (wedged)
        replaceWedged();
}

void QTovelMixerApiRtAudio::RtAudioData::closeOpen()
{
    closing = 1;
    audio->setStarted(false);
    if (replaceDead())
        return;
    const auto answer = std::make_shared<Answer>();
    if (audio->isRunning()) {
        if (!call(aborting(audio.get(), answer), stopTimeout)) {
            replaceWedged();
            return;
        }
        if (QTovelMixer::logFailure(*answer, "close", "abortStream :"))
            noteError(answer->text);
    }
    waitForCallbacks();
    if (replaceDead())
        return;
    *answer = Answer();
    if (!call(::closing(answer), stopTimeout)) {
        replaceWedged();
        return;
    }
    if (!QTovelMixer::logFailure(*answer, "close", "closeStream :"))
        replaceUsed();
}

bool QTovelMixerApiRtAudio::RtAudioData::replaceDead()
{
    if (!audio->mustBeLeft())
        return false;
    audio->leave();
    replaceWedged();
    return true;
}

void QTovelMixerApiRtAudio::RtAudioData::waitForCallbacks()
{
    for (int check = 0; check < inFlightChecks && callbacksInFlight.load() != 0; ++check)
        QThread::msleep(1);
}

void QTovelMixerApiRtAudio::RtAudioData::dropBlocks()
{
    inputBlock = nullptr;
    outputBlock = nullptr;
    streaming = nullptr;
}

// Retirement ------------------------------------------------------------------------------------

void QTovelMixerApiRtAudio::RtAudioData::retire(int timeout)
{
    audio->detach(timeout);
    const std::shared_ptr<RtAudioInstance> old = std::exchange(audio, nullptr);
    dropBlocks();
    if (old->isStuck() || old->isRunning())
        QTovelMixer::writeWarning(
            "QTovelMixerApiRtAudio::Data::delete_audio_mixer: RtAudio instance orphaned by a "
            "wedged teardown thread -- leaking instead of deleting.");
    QElapsedTimer clock;
    clock.start();
    const bool ended = old->end(old->isStuck() ? QDeadlineTimer(0) : deadline(stopTimeout));
    if (!ended || old->isRunning())
        addOrphan(old);
    if (!ended)
        lose(clock.elapsed());
}

void QTovelMixerApiRtAudio::RtAudioData::replaceWedged()
{
    QTovelMixer::writeWarning(
        "QTovelMixerApiRtAudio::stop: RtAudio instance orphaned by a wedged teardown thread -- "
        "retiring it instead of leaving it in service.");
    if (!audio->isStuck()) {
        const auto answer = std::make_shared<Answer>();
        if (call(::closing(answer), stopTimeout) && answer->threw)
            QTovelMixer::writeWarning(
                "QTovelMixerApiRtAudio::stop: RtAudio :: closeStream : exception received! "
                "(orphan retire)");
    }
    retire(inFlightChecks);
    makeInstance();
}

void QTovelMixerApiRtAudio::RtAudioData::replaceUsed()
{
    retire(inFlightChecks);
    makeInstance();
}

void QTovelMixerApiRtAudio::RtAudioData::refresh()
{
    if (!audio && generation > 1)
        makeInstance();
    else if (audio && audio->wasUsed() && !audio->isOpen())
        replaceUsed();
}

// Errors and figures ----------------------------------------------------------------------------

void QTovelMixerApiRtAudio::RtAudioData::noteError(const std::string &text)
{
    if (text.empty())
        return;
    const QMutexLocker locker(&errorMutex);
    lastError = QString::fromStdString(text);
}

void QTovelMixerApiRtAudio::RtAudioData::streamError(const std::string &text)
{
    noteError(text);
}

void QTovelMixerApiRtAudio::RtAudioData::streamLost(Instance &instance)
{
    q->reportDeviceFailure();
    if (instance.api() == RtAudio::WINDOWS_DS && instance.isRunning()) {
        QTovelMixer::writeText(
            QtInfoMsg, "QTovelMixerApiRtAudio__ErrorCallback: DirectSound device failed in use "
                       "-- aborting stream to silence the looping buffer");
        instance.post(
            [](RtAudioDriver &driver) { attempt(driver, [&] { return driver.abortStream(); }); });
    }
}

QTovelMixerApiRtAudio::StreamStatus QTovelMixerApiRtAudio::RtAudioData::status() const
{
    StreamStatus status;
    status.blocks = blocks;
    status.overflows = overflows;
    status.underflows = underflows;
    status.droppedBlocks = droppedBlocks + (q->blocksDroppedByEngine() - droppedByEngine);
    status.lateBlocks = lateBlocks;
    {
        const QMutexLocker locker(&errorMutex);
        status.lastError = lastError;
    }
    if (!audio || !audio->isOpen())
        return status;
    const unsigned block = q->bufferFrames();
    const auto told = unsigned(std::max(audio->latency(), 0L));
    if (inputChannels > 0)
        status.inputLatency = outputChannels > 0 ? block : std::max(told, block);
    if (outputChannels > 0) {
        const unsigned kept = api == RtAudio::LINUX_PULSE ? block * unsigned(buffers) : block;
        status.outputLatency =
            std::max(kept, told > status.inputLatency ? told - status.inputLatency : 0);
    }
#if defined(__unix__) || defined(__APPLE__)
    const int policy = audio->schedulingPolicy();
    if (policy >= 0) {
        const int realtime = policy & (SCHED_FIFO | SCHED_RR);
        status.schedulingClass = realtime == SCHED_FIFO ? Fifo
                                 : realtime == SCHED_RR ? RoundRobin
                                                        : NormalScheduling;
        status.schedulingPriority = audio->schedulingPriority();
    }
#endif
    return status;
}
