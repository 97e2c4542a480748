// SPDX-License-Identifier: MIT
#include <mixer/api/rtaudio_device.h>

#include <QtCore/QStringList>

#include <algorithm>
#include <string>
#include <vector>

namespace {

constexpr unsigned int mostChannels = 32;

QString head(const QString &text, QChar separator)
{
    return text.split(separator).constFirst().trimmed();
}

QString model(const QString &id)
{
    return head(id, QLatin1Char('[')).split(QLatin1Char(':')).constLast().trimmed();
}

#if defined(QTOVELMIXER_CARRIED_RTAUDIO)
QString text(const std::string &bytes)
{
    return QString::fromUtf8(bytes.data(), qsizetype(bytes.size()));
}
#endif

} // namespace

QTovelMixerRtAudioDevice::QTovelMixerRtAudioDevice(QTovelMixer::Api *owner,
                                                   const RtAudio::DeviceInfo &info)
    : Device(owner), m_info(info)
{}

void QTovelMixerRtAudioDevice::setInfo(const RtAudio::DeviceInfo &info)
{
    m_info = info;
}

const RtAudio::DeviceInfo &QTovelMixerRtAudioDevice::info() const
{
    return m_info;
}

bool QTovelMixerRtAudioDevice::isValid() const
{
    return true;
}

QString QTovelMixerRtAudioDevice::uniqueId() const
{
    return QStringLiteral(
               "%2 [ %3 input / %4 output ] deviceId = %1 defaultInput = %5 defaultOutput = %6")
        .arg(m_info.ID)
        .arg(fullName())
        .arg(m_info.inputChannels)
        .arg(m_info.outputChannels)
        .arg(int(m_info.isDefaultInput))
        .arg(int(m_info.isDefaultOutput));
}

QString QTovelMixerRtAudioDevice::fullName() const
{
    return QString::fromUtf8(m_info.name.data(), qsizetype(m_info.name.size()));
}

QString QTovelMixerRtAudioDevice::name() const
{
    return fullName();
}

QString QTovelMixerRtAudioDevice::manufacture() const
{
    const QString whole = fullName();
    return whole.contains(QLatin1Char(':')) ? head(whole, QLatin1Char(':')) : whole;
}

unsigned int QTovelMixerRtAudioDevice::numInputChannels() const
{
    return std::min(m_info.inputChannels, mostChannels);
}

unsigned int QTovelMixerRtAudioDevice::numOutputChannels() const
{
    return std::min(m_info.outputChannels, mostChannels);
}

bool QTovelMixerRtAudioDevice::isAvailable() const
{
    return m_info.inputChannels != 0 || m_info.outputChannels != 0 || m_info.duplexChannels != 0;
}

bool QTovelMixerRtAudioDevice::isDefaultInput() const
{
    return m_info.isDefaultInput;
}

bool QTovelMixerRtAudioDevice::isDefaultOutput() const
{
    return m_info.isDefaultOutput;
}

bool QTovelMixerRtAudioDevice::isDuplex() const
{
    return m_info.duplexChannels != 0;
}

bool QTovelMixerRtAudioDevice::canPlayback(bool argument) const
{
    Q_UNUSED(argument)
    return numOutputChannels() != 0;
}

bool QTovelMixerRtAudioDevice::canCapture(bool argument) const
{
    Q_UNUSED(argument)
    return numInputChannels() != 0;
}

unsigned int QTovelMixerRtAudioDevice::preferedSampleRate() const
{
    return m_info.preferredSampleRate;
}

QList<unsigned int> QTovelMixerRtAudioDevice::sampleRates() const
{
    return QList<unsigned int>(m_info.sampleRates.begin(), m_info.sampleRates.end());
}

unsigned int QTovelMixerRtAudioDevice::minBufferFrames() const
{
    return 32;
}

unsigned int QTovelMixerRtAudioDevice::maxBufferFrames() const
{
    return 16384;
}

unsigned int QTovelMixerRtAudioDevice::defaultBufferFrames() const
{
    return 1024;
}

int QTovelMixerRtAudioDevice::deviceId() const
{
    return int(m_info.ID);
}

unsigned char QTovelMixerRtAudioDevice::matchScore(const QString &id) const
{
    const QString own = uniqueId();
    if (id == own)
        return 128;
    if (head(id, QLatin1Char(']')) == head(own, QLatin1Char(']')))
        return 64;
    if (head(id, QLatin1Char('[')) == head(own, QLatin1Char('[')))
        return 32;
    return model(id) == model(own) ? 16 : 0;
}

#if defined(QTOVELMIXER_CARRIED_RTAUDIO)

bool QTovelMixerRtAudioDevice::isMonitor() const
{
    return m_info.isMonitor;
}

QString QTovelMixerRtAudioDevice::formFactor() const
{
    return text(m_info.formFactor);
}

QString QTovelMixerRtAudioDevice::bus() const
{
    return text(m_info.bus);
}

QStringList QTovelMixerRtAudioDevice::channelNames(QTovelMixer::DeviceKind kind) const
{
    const bool isInput = kind == QTovelMixer::DeviceKind::Input;
    const std::vector<std::string> &known =
        isInput ? m_info.inputChannelNames : m_info.outputChannelNames;
    const size_t channels = isInput ? numInputChannels() : numOutputChannels();
    QStringList names;
    for (size_t channel = 0; channel < std::min(known.size(), channels); ++channel)
        names.append(text(known[channel]));
    return names;
}

#else

bool QTovelMixerRtAudioDevice::isMonitor() const
{
    return Device::isMonitor();
}

QString QTovelMixerRtAudioDevice::formFactor() const
{
    return Device::formFactor();
}

QString QTovelMixerRtAudioDevice::bus() const
{
    return Device::bus();
}

QStringList QTovelMixerRtAudioDevice::channelNames(QTovelMixer::DeviceKind kind) const
{
    return Device::channelNames(kind);
}

#endif
