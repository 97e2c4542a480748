// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_API_RTAUDIO_DEVICE_H
#define QTOVELMIXER_MIXER_API_RTAUDIO_DEVICE_H

#include <mixer/api/device.h>

#if defined(QTOVELMIXER_SYSTEM_RTAUDIO)
#include <RtAudio.h>
#else
#include <rtaudio/RtAudio.h>
#if !defined(QTOVELMIXER_CARRIED_RTAUDIO)
#error "another rtaudio/RtAudio.h stands before the one that is installed with this header"
#endif
#endif

#if defined(__GNUC__) && !defined(__clang__) && defined(QTOVELMIXER_BUILD)
// The record's functions stay in the library, and its layout is the header's.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wattributes"
#endif

/// A device as RtAudio reports it. A later probe that finds the device again replaces the record
/// in place, so that every pointer to the device stays good.
/// Threads: main.
class QTOVELMIXER_EXPORT QTovelMixerRtAudioDevice : public QTovelMixer::Device
{
public:
    QTovelMixerRtAudioDevice(QTovelMixer::Api *owner, const RtAudio::DeviceInfo &info);

    void setInfo(const RtAudio::DeviceInfo &info);
    const RtAudio::DeviceInfo &info() const;

    using Device::numInputChannels;
    using Device::numOutputChannels;

    bool isValid() const override;
    /// "NAME [ I input / O output ] deviceId = N defaultInput = 0|1 defaultOutput = 0|1", with the
    /// full channel counts.
    QString uniqueId() const override;
    QString fullName() const override;
    QString name() const override;
    /// What stands before the first ":" of the name; the whole name without one.
    QString manufacture() const override;
    /// At most 32.
    unsigned int numInputChannels() const override;
    /// At most 32.
    unsigned int numOutputChannels() const override;
    /// False for a device without any channel.
    bool isAvailable() const override;
    bool isDefaultInput() const override;
    bool isDefaultOutput() const override;
    bool isDuplex() const override;
    bool canPlayback(bool argument = false) const override;
    bool canCapture(bool argument = false) const override;
    unsigned int preferedSampleRate() const override;
    QList<unsigned int> sampleRates() const override;
    unsigned int minBufferFrames() const override;
    unsigned int maxBufferFrames() const override;
    unsigned int defaultBufferFrames() const override;
    int deviceId() const override;
    /// 128: the same identity; 64: the same name and channel counts; 32: the same name; 16: the
    /// same name but for the manufacturer before its last ":"; 0 otherwise.
    unsigned char matchScore(const QString &id) const override;
    /// These four are known of PulseAudio's devices; a packaged RtAudio knows them of none.
    bool isMonitor() const override;
    QString formFactor() const override;
    QString bus() const override;
    QStringList channelNames(QTovelMixer::DeviceKind kind) const override;

private:
    RtAudio::DeviceInfo m_info;
};

#if defined(__GNUC__) && !defined(__clang__) && defined(QTOVELMIXER_BUILD)
#pragma GCC diagnostic pop
#endif

#endif
