// SPDX-License-Identifier: MIT
// Interfaces, backends, and which of them a host prefers.
#include <mixer/api/api_rtaudio_p.h>

#include <QtCore/QMutex>

#include <algorithm>
#include <array>
#include <stdexcept>

namespace QTovelMixer {

namespace {

struct Pair
{
    RtAudio::Api api;
    Backend backend;
};

constexpr std::array pairs = {
    Pair{RtAudio::UNSPECIFIED, NoBackend},  Pair{RtAudio::MACOSX_CORE, CoreAudio},
    Pair{RtAudio::LINUX_ALSA, Alsa},        Pair{RtAudio::UNIX_JACK, Jack},
    Pair{RtAudio::LINUX_PULSE, Pulse},      Pair{RtAudio::LINUX_OSS, OSS},
    Pair{RtAudio::WINDOWS_ASIO, ASIO},      Pair{RtAudio::WINDOWS_WASAPI, WASAPI},
    Pair{RtAudio::WINDOWS_DS, DirectSound}, Pair{RtAudio::RTAUDIO_DUMMY, Disabled},
};

struct Preference
{
    QMutex mutex;
    std::vector<RtAudio::Api> apis = {RtAudio::LINUX_PULSE,  RtAudio::UNIX_JACK,
                                      RtAudio::LINUX_ALSA,   RtAudio::MACOSX_CORE,
                                      RtAudio::WINDOWS_DS,   RtAudio::WINDOWS_WASAPI,
                                      RtAudio::WINDOWS_ASIO, RtAudio::RTAUDIO_DUMMY};
};

Preference &preference()
{
    static Preference made;
    return made;
}

} // namespace

Backend backendOf(RtAudio::Api api)
{
    for (const Pair &pair : pairs) {
        if (pair.api == api)
            return pair.backend;
    }
    throw std::logic_error("Invalid backend");
}

RtAudio::Api rtAudioApiOf(Backend backend)
{
    if (backend == File || backend == Auto)
        return RtAudio::UNSPECIFIED;
    for (const Pair &pair : pairs) {
        if (pair.backend == backend)
            return pair.api;
    }
    return RtAudio::NUM_APIS;
}

bool isCompiled(RtAudio::Api api)
{
    const std::vector<RtAudio::Api> compiled = rtAudioSystem().compiledApis().list;
    return std::find(compiled.begin(), compiled.end(), api) != compiled.end();
}

RtAudio::Api preferedRtAudioApi()
{
    Preference &prefered = preference();
    const QMutexLocker locker(&prefered.mutex);
    for (RtAudio::Api api : prefered.apis) {
        if (api >= RtAudio::NUM_APIS)
            throw std::logic_error("Invalid backend");
        if (isCompiled(api))
            return api;
    }
    return RtAudio::RTAUDIO_DUMMY;
}

} // namespace QTovelMixer

QStringList QTovelMixerApiRtAudio::getAvailableBackends()
{
    QStringList names;
    for (RtAudio::Api api : QTovelMixer::rtAudioSystem().compiledApis().list)
        names.append(QTovelMixer::convertBackendToString(QTovelMixer::backendOf(api)));
    return names;
}

QString QTovelMixerApiRtAudio::getPreferedBackend()
{
    return QTovelMixer::convertBackendToString(
        QTovelMixer::backendOf(QTovelMixer::preferedRtAudioApi()));
}

void QTovelMixerApiRtAudio::setPreferedBackends(const QList<QTovelMixer::Backend> &backends)
{
    QTovelMixer::Preference &prefered = QTovelMixer::preference();
    const QMutexLocker locker(&prefered.mutex);
    prefered.apis.clear();
    for (QTovelMixer::Backend backend : backends)
        prefered.apis.push_back(QTovelMixer::rtAudioApiOf(backend));
}
