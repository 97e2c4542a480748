// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_API_API_FILE_H
#define QTOVELMIXER_MIXER_API_API_FILE_H

#include <mixer/api/api.h>

/// A backend without hardware: a raw PCM file, played in a loop, is its input, another one its
/// output, and a timer on the thread that made it its clock. Files hold interleaved signed 16-bit
/// samples in the machine's byte order, without a header, at 44100 Hz.
///
/// Both files are offered as input devices, so that through the engine this backend records only:
/// the output file is not opened.
///
/// Threads: the one that made it, which its blocks run on too.
class QTOVELMIXER_EXPORT QTovelMixerApiFile : public QTovelMixer::Api
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(QTovelMixerApiFile)

public:
    /// An empty path leaves its side out. The rate is accepted and has no effect.
    QTovelMixerApiFile(const QString &inputPath, int inputChannels, const QString &outputPath,
                       int outputChannels, int sampleRate, const QString &name);
    ~QTovelMixerApiFile() override;

    bool updateDeviceList() override;
    /// Opens what can be opened of the two files. Errors: false when that is neither.
    bool open(QTovelMixer::Device *output, QTovelMixer::Device *input,
              unsigned int sampleRate) override;
    /// Rewinds both files and starts the timer. Errors: false when nothing is open.
    bool start() override;
    bool stop() override;
    bool close() override;
    bool isOpen() const override;
    bool isRunning() const override;

public Q_SLOTS:
    /// Runs one block.
    void mixerTimeout();

private:
    struct FileData;
    std::unique_ptr<FileData> f;
};

#endif
