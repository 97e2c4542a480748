// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_MIXER_API_SCRIPTED_DRIVER_H
#define QTOVELMIXER_TESTS_MIXER_API_SCRIPTED_DRIVER_H

#include <mixer/api/rtaudio_driver_p.h>

#include <QtCore/QDeadlineTimer>
#include <QtCore/QMap>
#include <QtCore/QMutex>
#include <QtCore/QSemaphore>
#include <QtCore/QStringList>
#include <QtCore/QThread>

#include <stdexcept>

/// A sound system that does what the test says. Calls run on the backend's control threads, so
/// what they read is guarded.
class Script
{
public:
    enum Act { Work, Fail, Throw, Hang };

    /// Puts itself in the place of RtAudio.
    explicit Script(std::vector<RtAudio::Api> compiled = {RtAudio::LINUX_ALSA, RtAudio::UNIX_JACK,
                                                          RtAudio::LINUX_PULSE})
        : apis(std::move(compiled))
    {
        QTovelMixer::rtAudioSystem() = {[this] { return QTovelMixer::RtAudioApis{apis}; },
                                        [this](RtAudio::Api api, RtAudioErrorCallback callback) {
                                            return make(api, std::move(callback));
                                        }};
    }
    /// Lets go of every call that hangs, and waits for the instances that they kept.
    ~Script()
    {
        release.release(1000);
        const QDeadlineTimer deadline(5000);
        while (alive > leaked && !deadline.hasExpired())
            QThread::yieldCurrentThread();
        QTovelMixer::rtAudioSystem() = QTovelMixer::realRtAudioSystem();
    }
    Q_DISABLE_COPY_MOVE(Script)

    struct Device
    {
        std::string name;
        unsigned outputs = 2;
        unsigned inputs = 0;
        bool defaultOutput = false;
        bool defaultInput = false;
    };

    /// How the call of this name acts from now on: "make", "ids", "info", "open", "start", "abort",
    /// "close".
    void act(const QString &call, Act how)
    {
        const QMutexLocker locker(&mutex);
        acts[call] = how;
    }
    void setDevices(std::vector<Device> list, unsigned firstNumber = 129)
    {
        const QMutexLocker locker(&mutex);
        devices = std::move(list);
        first = firstNumber;
    }
    QStringList callsMade() const
    {
        const QMutexLocker locker(&mutex);
        return calls;
    }
    void clearCalls()
    {
        const QMutexLocker locker(&mutex);
        calls.clear();
    }
    int count(const QString &call) const { return int(callsMade().count(call)); }

    struct Driver;

    std::vector<RtAudio::Api> apis;
    QSemaphore release;                     ///< one for each call that may come back
    std::atomic<bool> staysRunning{false};  ///< abort and close leave the stream running
    std::atomic<bool> silentServer{false};  ///< it does not tell its devices
    std::atomic<unsigned> grantedFrames{0}; ///< 0: what was asked
    std::atomic<long> latency{0};
    std::atomic<int> alive{0};
    int leaked = 0;                      ///< instances that will never be deleted
    std::atomic<Driver *> last{nullptr}; ///< the youngest
    RtAudio::StreamParameters askedOutput;
    RtAudio::StreamParameters askedInput;
    RtAudio::StreamOptions askedOptions;
    unsigned askedRate = 0;
    unsigned askedFrames = 0;

    /// What RtAudio does with a callback, on the calling thread.
    int block(float *output, float *input, unsigned frames, unsigned status = 0,
              double streamTime = 0.0);
    /// RtAudio's error callback of the youngest instance, on the calling thread.
    void error(RtAudioErrorType type, const std::string &text);

private:
    friend struct Driver;
    std::unique_ptr<QTovelMixer::RtAudioDriver> make(RtAudio::Api api, RtAudioErrorCallback error);
    /// Answers whether the call works; waits, or throws.
    bool enter(const QString &call)
    {
        Act how = Work;
        {
            const QMutexLocker locker(&mutex);
            calls.append(call);
            how = acts.value(call, Work);
        }
        if (how == Hang)
            release.acquire();
        if (how == Throw)
            throw std::runtime_error("scripted");
        return how != Fail;
    }

    mutable QMutex mutex;
    QMap<QString, Act> acts;
    QStringList calls;
    std::vector<Device> devices{{"Maker: Speakers", 2, 0, true, false},
                                {"Microphone", 0, 2, false, true}};
    unsigned first = 129;
};

struct Script::Driver final : QTovelMixer::RtAudioDriver
{
    Driver(Script &owner, RtAudio::Api kind, RtAudioErrorCallback callback)
        : script(owner), api(kind), onError(std::move(callback))
    {
        ++script.alive;
        script.last = this;
    }
    ~Driver() override
    {
        Driver *self = this;
        script.last.compare_exchange_strong(self, nullptr);
        --script.alive;
    }

    RtAudio::Api currentApi() override
    {
        return api == RtAudio::UNSPECIFIED ? script.apis.front() : api;
    }
    std::optional<std::vector<unsigned>> deviceIds() override
    {
        script.enter(QStringLiteral("ids"));
        if (script.silentServer)
            return std::nullopt;
        const QMutexLocker locker(&script.mutex);
        listed = script.devices;
        first = script.first;
        std::vector<unsigned> ids;
        for (size_t i = 0; i < listed.size(); ++i)
            ids.push_back(first + unsigned(i));
        return ids;
    }
    RtAudio::DeviceInfo deviceInfo(unsigned id) override
    {
        // The second device fails, so that one has been seen before.
        if (id > first)
            script.enter(QStringLiteral("info"));
        const Device &device = listed.at(id - first);
        RtAudio::DeviceInfo info;
        info.ID = id;
        info.name = device.name;
        info.outputChannels = device.outputs;
        info.inputChannels = device.inputs;
        info.isDefaultOutput = device.defaultOutput;
        info.isDefaultInput = device.defaultInput;
        info.sampleRates = {44100, 48000};
        info.preferredSampleRate = 48000;
        return info;
    }
    RtAudioErrorType openStream(RtAudio::StreamParameters *output, RtAudio::StreamParameters *input,
                                unsigned rate, unsigned *frames, RtAudioCallback callback,
                                void *userData, RtAudio::StreamOptions *options) override
    {
        if (!script.enter(QStringLiteral("open")))
            return fail("no such stream");
        const QMutexLocker locker(&script.mutex);
        script.askedOutput = output ? *output : RtAudio::StreamParameters();
        script.askedInput = input ? *input : RtAudio::StreamParameters();
        script.askedOptions = *options;
        script.askedRate = rate;
        script.askedFrames = *frames;
        if (script.grantedFrames != 0)
            *frames = script.grantedFrames;
        stream = callback;
        streamData = userData;
        open = true;
        return RTAUDIO_NO_ERROR;
    }
    RtAudioErrorType startStream() override
    {
        if (!script.enter(QStringLiteral("start")))
            return fail("cannot start");
        running = true;
        return RTAUDIO_NO_ERROR;
    }
    RtAudioErrorType abortStream() override
    {
        const bool works = script.enter(QStringLiteral("abort"));
        running = script.staysRunning.load();
        return works ? RTAUDIO_NO_ERROR : fail("cannot abort");
    }
    void closeStream() override
    {
        script.enter(QStringLiteral("close"));
        if (!script.staysRunning) {
            running = false;
            open = false;
        }
    }
    bool isStreamOpen() const override { return open; }
    bool isStreamRunning() const override { return running; }
    long latency() override { return script.latency; }
    std::string errorText() override { return text; }

    RtAudioErrorType fail(const std::string &why)
    {
        text = why;
        onError(RTAUDIO_SYSTEM_ERROR, why);
        return RTAUDIO_SYSTEM_ERROR;
    }

    Script &script;
    const RtAudio::Api api;
    const RtAudioErrorCallback onError;
    std::vector<Device> listed;
    unsigned first = 0;
    std::string text;
    std::atomic<bool> open{false};
    std::atomic<bool> running{false};
    RtAudioCallback stream = nullptr;
    void *streamData = nullptr;
};

inline std::unique_ptr<QTovelMixer::RtAudioDriver> Script::make(RtAudio::Api api,
                                                                RtAudioErrorCallback error)
{
    enter(QStringLiteral("make"));
    return std::make_unique<Driver>(*this, api, std::move(error));
}

inline int Script::block(float *output, float *input, unsigned frames, unsigned status,
                         double streamTime)
{
    Driver *driver = last;
    return driver->stream(output, input, frames, streamTime, status, driver->streamData);
}

inline void Script::error(RtAudioErrorType type, const std::string &text)
{
    last.load()->onError(type, text);
}

#endif
