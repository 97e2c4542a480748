// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_SUPPORT_TEST_API_H
#define QTOVELMIXER_TESTS_SUPPORT_TEST_API_H

#include <mixer/api/api.h>
#include <mixer/api/device.h>

#include <QtCore/QStringList>

#include <atomic>
#include <functional>
#include <thread>

/// A device that is whatever a test says.
struct TestDevice : public QTovelMixer::Device
{
    explicit TestDevice(QTovelMixer::Api *api) : Device(api) {}

    using Device::numInputChannels;
    using Device::numOutputChannels;

    bool isValid() const override { return valid; }
    QString uniqueId() const override { return fullDeviceName + QString::number(id); }
    QString fullName() const override { return fullDeviceName; }
    QString name() const override { return deviceName; }
    QString manufacture() const override { return maker; }
    unsigned int numInputChannels() const override { return inputs; }
    unsigned int numOutputChannels() const override { return outputs; }
    bool isAvailable() const override { return available; }
    bool isDefaultInput() const override { return defaultInput; }
    bool isDefaultOutput() const override { return defaultOutput; }
    bool isDuplex() const override { return inputs > 0 && outputs > 0; }
    bool canPlayback(bool) const override { return outputs > 0; }
    bool canCapture(bool) const override { return inputs > 0; }
    unsigned int preferedSampleRate() const override { return prefered; }
    QList<unsigned int> sampleRates() const override { return rates; }
    unsigned int minBufferFrames() const override { return minFrames; }
    unsigned int maxBufferFrames() const override { return maxFrames; }
    int deviceId() const override { return id; }

    QString deviceName;
    QString fullDeviceName;
    QString maker;
    unsigned inputs = 0;
    unsigned outputs = 0;
    QList<unsigned> rates = {44100, 48000, 96000};
    unsigned prefered = 48000;
    bool defaultInput = false;
    bool defaultOutput = false;
    bool available = true;
    bool valid = true;
    unsigned minFrames = 64;
    unsigned maxFrames = 4096;
    int id = 0;
};

/// A backend that a test drives block by block, or lets run on a thread of its own.
class TestApi : public QTovelMixer::Api
{
    Q_OBJECT

public:
    using Buffer = QTovelMixer::aligned_vector<float, 16>;

    explicit TestApi(unsigned bufferFrames = 256, QTovelMixer::Backend backend = QTovelMixer::Auto,
                     const QString &name = QStringLiteral("Test"));
    ~TestApi() override;

    /// A device that the next update finds.
    TestDevice *addTestDevice(const QString &name, unsigned inputs, unsigned outputs);
    /// Devices that the next update does not find, or finds again.
    void hideDevice(TestDevice *device);
    void showDevice(TestDevice *device);

    /// Runs one block of a running stream. Answers what the engine answered; −1 when nothing runs.
    int runBlock(unsigned status = 0);

    /// Runs blocks back to back on a thread marked as audio, until `stopThread`, `stop` or the end.
    void startThread();
    void stopThread();

    // The operations for concrete backends, open to tests.
    using Api::addDevice;
    using Api::beginDeviceUpdate;
    using Api::endDeviceUpdate;

    bool updateDeviceList() override;
    bool open(QTovelMixer::Device *output, QTovelMixer::Device *input,
              unsigned int sampleRate) override;
    bool start() override;
    bool stop() override;
    bool close() override;
    void onPause() override;
    void onResume() override;
    bool isOpen() const override { return m_open; }
    bool isRunning() const override { return m_running; }
    bool mayPauseAgain() const override { return mayPause; }

    QStringList
        calls; ///< "update", "open OUT/IN RATE", "start", "stop", "close", "pause", "resume"
    std::function<bool(QTovelMixer::Device *, QTovelMixer::Device *, unsigned)> acceptOpen;
    bool failUpdate = false;
    bool failStart = false;
    std::atomic<bool> mayPause{false};
    Buffer input;  ///< one interleaved block of the open input device
    Buffer output; ///< one interleaved block of the open output device
    std::atomic<quint64> blocks{0};

private:
    int callEngine(unsigned status);

    QList<TestDevice *> m_found;
    QList<TestDevice *> m_owned; ///< until an update hands them to the base
    bool m_open = false;
    std::atomic<bool> m_running{false};
    double m_streamTime = 0.0;
    std::atomic<bool> m_threadWanted{false};
    std::thread m_thread;
};

#endif
