// SPDX-License-Identifier: MIT
#include <mixer/api/api_virtual.h>

#include <base/debug.h>
#include <base/hidden_p.h>
#include <base/thread_start_p.h>
#include <base/trace_p.h>
#include <mixer/api/virtual_device_p.h>
#include <mixer/api/virtual_stream_p.h>

#include <algorithm>
#include <utility>

using QTovelMixer::AudioThreadMark;
using QTovelMixer::Device;
using QTovelMixer::ThreadStart;
using QTovelMixer::VirtualStream;

namespace {

constexpr unsigned int mostChannels = 128;
constexpr unsigned int mostBufferFrames = 4096;
constexpr quint64 mostDelay = quint64(1) << 26; // frames
constexpr unsigned long endTimeout = 2000;      // ms
constexpr int readyTimeout = 100;               // ms; keeps the mixer's watchdog content

bool isUsable(const QTovelMixerApiVirtual::DeviceSetup &setup)
{
    return !setup.name.isEmpty() && setup.inputChannels + setup.outputChannels > 0 &&
           setup.inputChannels <= mostChannels && setup.outputChannels <= mostChannels &&
           !setup.sampleRates.isEmpty() && !setup.sampleRates.contains(0) &&
           setup.minBufferFrames >= 1 && setup.minBufferFrames <= setup.maxBufferFrames &&
           setup.maxBufferFrames <= mostBufferFrames;
}

} // namespace

struct QTOVELMIXER_HIDDEN QTovelMixerApiVirtual::VirtualData
{
    struct Plugged
    {
        DeviceSetup setup;
        bool failing = false;
    };

    Pacing pacing;
    QList<Plugged> plugged;
    VirtualStream::Setup next; ///< what the host asks for
    bool open = false;
    QString openOutput; ///< names, empty for none
    QString openInput;
    VirtualStream::Setup stream;            ///< of the open devices
    std::unique_ptr<VirtualStream> running; ///< the last run, also after its end

    QList<Plugged>::iterator find(const QString &name)
    {
        return std::find_if(plugged.begin(), plugged.end(),
                            [&](const Plugged &entry) { return entry.setup.name == name; });
    }
    bool opens(Device *device)
    {
        const auto entry = find(device->name());
        return entry != plugged.end() && !entry->failing;
    }
    bool isOpenDevice(const QString &name) const
    {
        return open && (name == openOutput || name == openInput);
    }
    bool ended() const { return !running || running->isFinished(); }
    bool end();
    void breakStream(QTovelMixerApiVirtual &api);
};

/// Ends the thread; false when it still runs.
bool QTovelMixerApiVirtual::VirtualData::end()
{
    if (!running)
        return true;
    running->requestEnd();
    return running.get() == QThread::currentThread() || running->wait(endTimeout);
}

void QTovelMixerApiVirtual::VirtualData::breakStream(QTovelMixerApiVirtual &api)
{
    if (running)
        running->requestEnd();
    api.reportDeviceFailure();
}

QTovelMixerApiVirtual::QTovelMixerApiVirtual(Pacing pacing, unsigned int bufferFrames,
                                             const QString &name)
    : Api(QTovelMixer::File, name, std::max(bufferFrames, 1u)), v(std::make_unique<VirtualData>())
{
    v->pacing = pacing;
}

// The thread calls this object: it has to end first, however long that takes.
QTovelMixerApiVirtual::~QTovelMixerApiVirtual()
{
    v->running.reset();
}

QTovelMixerApiVirtual::Pacing QTovelMixerApiVirtual::pacing() const
{
    return v->pacing;
}

bool QTovelMixerApiVirtual::plug(const DeviceSetup &setup)
{
    if (!isUsable(setup) || v->isOpenDevice(setup.name))
        return false;
    const auto known = v->find(setup.name);
    if (known != v->plugged.end())
        known->setup = setup;
    else
        v->plugged.append({setup, false});
    return true;
}

bool QTovelMixerApiVirtual::unplug(const QString &name)
{
    const auto entry = v->find(name);
    if (entry == v->plugged.end())
        return false;
    // cppcheck-suppress iterators1; find() searches plugged
    v->plugged.erase(entry);
    if (v->isOpenDevice(name))
        v->breakStream(*this);
    return true;
}

bool QTovelMixerApiVirtual::setFailing(const QString &name, bool failing)
{
    const auto entry = v->find(name);
    if (entry == v->plugged.end())
        return false;
    entry->failing = failing;
    if (failing && v->isOpenDevice(name))
        v->breakStream(*this);
    return true;
}

void QTovelMixerApiVirtual::setSilence()
{
    v->next.loopback = false;
    v->next.generator = nullptr;
}

void QTovelMixerApiVirtual::setGenerator(const Generator &generator)
{
    setSilence();
    v->next.generator = generator;
}

void QTovelMixerApiVirtual::setLoopback(quint64 delayFrames)
{
    setSilence();
    v->next.loopback = true;
    v->next.delayFrames = std::min(delayFrames, mostDelay);
}

void QTovelMixerApiVirtual::setOutputHandler(const OutputHandler &handler)
{
    v->next.handler = handler;
}

QTovelMixerApiVirtual::Statistics QTovelMixerApiVirtual::statistics() const
{
    return v->running ? v->running->statistics() : Statistics();
}

bool QTovelMixerApiVirtual::updateDeviceList()
{
    beginDeviceUpdate();
    int number = 0;
    for (const VirtualData::Plugged &entry : std::as_const(v->plugged)) {
        auto *device = dynamic_cast<QTovelMixerVirtualDevice *>(findDevice(entry.setup.name));
        if (!device)
            device = new QTovelMixerVirtualDevice(this, entry.setup);
        device->setSetup(entry.setup, number++);
        addDevice(device);
    }
    endDeviceUpdate();
    return true;
}

bool QTovelMixerApiVirtual::open(Device *output, Device *input, unsigned int sampleRate)
{
    const bool none = !output && !input;
    if (none || sampleRate == 0 || bufferFrames() == 0 || !v->ended())
        return false;
    for (Device *device : {output, input}) {
        if (device && !(checkDevice(device) && v->opens(device)))
            return false;
    }
    v->running.reset();
    v->openOutput = output ? output->name() : QString();
    v->openInput = input ? input->name() : QString();
    v->stream = {};
    v->stream.pacing = v->pacing;
    v->stream.frames = bufferFrames();
    v->stream.rate = sampleRate;
    v->stream.inputChannels = Device::numInputChannels(input);
    v->stream.outputChannels = Device::numOutputChannels(output);
    v->open = true;
    rearmDeviceFailure();
    return true;
}

bool QTovelMixerApiVirtual::start()
{
    if (isRunning())
        return true;
    if (!v->open || !v->ended())
        return false;
    VirtualStream::Setup setup = v->stream;
    setup.loopback = v->next.loopback;
    setup.delayFrames = v->next.delayFrames;
    setup.generator = v->next.generator;
    setup.handler = v->next.handler;
    setup.wake = [this] { wakeMix(); };
    setup.fail = [this] { reportDeviceFailure(); };
    if (v->pacing == Pacing::FreeWheel)
        setup.mix = [this](auto &input, auto &output, unsigned int frames, double time) {
            return mixWhenReady(input, output, frames, time, readyTimeout);
        };
    else
        setup.mix = [this](auto &input, auto &output, unsigned int frames, double time) {
            const AudioThreadMark mark;
            return mixerCallback(input, output, frames, time, 0);
        };
    auto stream = std::make_unique<VirtualStream>(setup);
    watchStart(*stream);
    v->running = std::move(stream);
    const bool inRealTime = v->pacing == Pacing::RealTime;
    const ThreadStart answer = startThread(*v->running, inRealTime ? QThread::TimeCriticalPriority
                                                                   : QThread::InheritPriority);
    if (answer == ThreadStart::Started)
        return true;
    BLDEBUG_Error(-1, "QTovelMixerApiVirtual::start: Cannot start a thread, %s!!",
                  missingFor(answer));
    v->running.reset();
    return false;
}

bool QTovelMixerApiVirtual::stop()
{
    return v->end();
}

bool QTovelMixerApiVirtual::close()
{
    const bool ended = v->end();
    v->open = false;
    return ended;
}

bool QTovelMixerApiVirtual::isOpen() const
{
    return v->open;
}

bool QTovelMixerApiVirtual::isRunning() const
{
    return v->running && v->running->isActive();
}
