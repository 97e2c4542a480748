// SPDX-License-Identifier: MIT
#include <mixer/api/api_file.h>

#include <base/debug.h>
#include <base/hidden_p.h>
#include <base/log_line_p.h>
#include <mixer/api/block_answer_p.h>
#include <mixer/api/file_device.h>

#include <QtCore/QFile>
#include <QtCore/QTimer>

#include <algorithm>
#include <vector>

using QTovelMixer::Device;
using QTovelMixer::DeviceKind;
using Block = QTovelMixer::aligned_vector<float, 16>;

namespace {

constexpr int fileRate = 44100; // Hz
constexpr unsigned int fileBufferFrames = 1024;

std::unique_ptr<QFile> openFile(const QString &path, QIODevice::OpenMode mode)
{
    auto file = std::make_unique<QFile>(path);
    if (!file->open(mode))
        file.reset();
    return file;
}

QByteArray logName(Device *device)
{
    return device && device->isValid() ? device->name().toUtf8() : QByteArray("undef");
}

} // namespace

struct QTOVELMIXER_HIDDEN QTovelMixerApiFile::FileData
{
    QString inputPath;
    int inputChannels;
    QString outputPath;
    int outputChannels;
    int openInputChannels = 0; ///< of the devices that were opened
    int openOutputChannels = 0;
    // Never null: a side without a file has a block without samples.
    std::shared_ptr<Block> inputBlock = std::make_shared<Block>();
    std::shared_ptr<Block> outputBlock = std::make_shared<Block>();
    double streamTime = 0.0;
    std::unique_ptr<QFile> inputFile;
    std::unique_ptr<QFile> outputFile;
    QTimer timer;
    std::vector<qint16> samples; ///< of one block, as they stand in the file

    void makeBlocks(unsigned int frames);
    void readInput(unsigned int frames);
    void writeOutput(unsigned int frames);
};

void QTovelMixerApiFile::FileData::makeBlocks(unsigned int frames)
{
    const auto make = [frames](const std::unique_ptr<QFile> &file, int channels) {
        auto block = std::make_shared<Block>(file ? size_t(frames) * size_t(channels) : 0);
        block->zero();
        return block;
    };
    inputBlock = make(inputFile, openInputChannels);
    outputBlock = make(outputFile, openOutputChannels);
}

// The file plays in a loop; bytes that even its beginning cannot give are silence.
void QTovelMixerApiFile::FileData::readInput(unsigned int frames)
{
    const size_t count = size_t(frames) * size_t(openInputChannels);
    samples.assign(count, 0);
    char *bytes = reinterpret_cast<char *>(samples.data());
    const qint64 wanted = qint64(count * sizeof(qint16));
    const qint64 got = std::max<qint64>(inputFile->read(bytes, wanted), 0);
    if (got < wanted) {
        inputFile->seek(0);
        inputFile->read(bytes + got, wanted - got);
    }
    float *out = inputBlock->data();
    for (size_t i = 0; i < count; ++i)
        out[i] = float(samples[i] * 3.0517578125e-05);
}

void QTovelMixerApiFile::FileData::writeOutput(unsigned int frames)
{
    const size_t count = size_t(frames) * size_t(openOutputChannels);
    samples.resize(count);
    const float *in = outputBlock->constData();
    for (size_t i = 0; i < count; ++i) {
        const float scaled = in[i] * 32768.0f;
        // The comparisons let what is not a number become silence.
        samples[i] = scaled >= 32767.0f    ? qint16(32767)
                     : scaled <= -32768.0f ? qint16(-32768)
                     : scaled == scaled    ? qint16(scaled)
                                           : qint16(0);
    }
    outputFile->write(reinterpret_cast<const char *>(samples.data()),
                      qint64(count * sizeof(qint16)));
}

QTovelMixerApiFile::QTovelMixerApiFile(const QString &inputPath, int inputChannels,
                                       const QString &outputPath, int outputChannels,
                                       int sampleRate, const QString &name)
    : Api(QTovelMixer::File, name, fileBufferFrames), f(std::make_unique<FileData>())
{
    Q_UNUSED(sampleRate)
    f->inputPath = inputPath;
    f->inputChannels = std::max(inputChannels, 0);
    f->outputPath = outputPath;
    f->outputChannels = std::max(outputChannels, 0);
    f->timer.setTimerType(Qt::PreciseTimer);
    connect(&f->timer, &QTimer::timeout, this, &QTovelMixerApiFile::mixerTimeout);
}

QTovelMixerApiFile::~QTovelMixerApiFile() = default;

bool QTovelMixerApiFile::updateDeviceList()
{
    beginDeviceUpdate();
    const auto add = [this](const QString &path, int channels) {
        if (path.isEmpty())
            return;
        auto *device = dynamic_cast<QTovelMixerFileDevice *>(findDevice(path));
        if (!device)
            device = new QTovelMixerFileDevice(this, DeviceKind::Input, path, fileRate,
                                               unsigned(channels), 0);
        device->setDeviceId(0);
        addDevice(device);
    };
    add(f->inputPath, f->inputChannels);
    add(f->outputPath, f->outputChannels);
    endDeviceUpdate();
    return true;
}

bool QTovelMixerApiFile::open(Device *output, Device *input, unsigned int sampleRate)
{
    if ((f->inputPath.isEmpty() && f->outputPath.isEmpty()) || sampleRate == 0)
        return false;
    f->outputFile.reset();
    f->inputFile.reset();
    if (checkDevice(output) && output->canPlayback(false))
        f->outputFile = openFile(output->fullName(), QIODevice::WriteOnly);
    if (checkDevice(input) && input->canCapture(false))
        f->inputFile = openFile(input->fullName(), QIODevice::ReadOnly);
    if (!isOpen())
        return false;
    BLDEBUG_Log(1, "QTovelMixer::open: Output: %s / Input: %s / Sample Rate: %d Hz",
                logName(output).constData(), logName(input).constData(), int(sampleRate));
    f->openInputChannels = f->inputFile ? int(input->numInputChannels()) : 0;
    f->openOutputChannels = f->outputFile ? int(output->numOutputChannels()) : 0;
    f->makeBlocks(bufferFrames());
    f->timer.setInterval(int(bufferFrames() * 1000 / sampleRate));
    return true;
}

bool QTovelMixerApiFile::start()
{
    if (!isOpen())
        return false;
    for (QFile *file : {f->inputFile.get(), f->outputFile.get()}) {
        if (file)
            file->seek(0);
    }
    f->timer.start();
    return true;
}

bool QTovelMixerApiFile::stop()
{
    f->timer.stop();
    return true;
}

bool QTovelMixerApiFile::close()
{
    f->timer.stop();
    f->inputFile.reset();
    f->outputFile.reset();
    return true;
}

bool QTovelMixerApiFile::isOpen() const
{
    return f->inputFile || f->outputFile;
}

bool QTovelMixerApiFile::isRunning() const
{
    return f->timer.isActive();
}

void QTovelMixerApiFile::mixerTimeout()
{
    const unsigned int frames = bufferFrames();
    const size_t inputSamples = size_t(frames) * size_t(f->openInputChannels);
    const size_t outputSamples = size_t(frames) * size_t(f->openOutputChannels);
    // The buffer size may have changed since the file was opened.
    if ((f->inputFile && f->inputBlock->size() < inputSamples) ||
        (f->outputFile && f->outputBlock->size() < outputSamples)) {
        f->makeBlocks(frames);
        QTovelMixer::writeWarning(
            "QTovelMixerApiFile: blocks of %u frames are longer than those of the open stream "
            "-- open it again to mix them whole",
            frames);
    }
    if (f->inputFile)
        f->readInput(frames);
    if (mixerCallback(*f->inputBlock, *f->outputBlock, frames, f->streamTime, 0) !=
        QTovelMixer::BlockAnswer::goOn) {
        f->timer.stop();
        return;
    }
    if (f->outputFile)
        f->writeOutput(frames);
}
