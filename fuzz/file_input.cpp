// SPDX-License-Identifier: MIT
// The file backend on an input file of any content and length: it plays in a loop, and what even
// the beginning cannot give is silence.
#include <mixer/api/file_fixture.h>

#include "bytes.h"
#include "require.h"

#include <sys/mman.h>
#include <unistd.h>

using namespace QTovelMixer;

namespace {

/// A file without a file system.
class MemoryFile
{
public:
    MemoryFile() : m_handle(memfd_create("input", 0))
    {
        Fuzz::require(m_handle >= 0, "there is memory for a file");
    }
    ~MemoryFile() { close(m_handle); }
    Q_DISABLE_COPY_MOVE(MemoryFile)

    void fill(const QByteArray &content)
    {
        Fuzz::require(ftruncate(m_handle, content.size()) == 0 &&
                          pwrite(m_handle, content.constData(), size_t(content.size()), 0) ==
                              content.size(),
                      "the file can be written");
    }
    QString path() const { return QString("/proc/self/fd/%1").arg(m_handle); }

private:
    int m_handle;
};

/// Byte by byte: at the end of the file its beginning once more, then nothing until the next block.
class Player
{
public:
    explicit Player(const QByteArray &content) : m_content(content) {}

    QList<float> block()
    {
        QByteArray bytes = m_content.mid(m_position, blockBytes);
        m_position += bytes.size();
        if (bytes.size() < blockBytes) {
            const QByteArray again = m_content.left(blockBytes - bytes.size());
            m_position = again.size();
            bytes += again;
        }
        bytes.append(blockBytes - bytes.size(), '\0');
        QList<float> samples;
        for (const qint16 sample : samplesOf(bytes))
            samples.append(float(double(sample) / 32768.0));
        return samples;
    }

private:
    QByteArray m_content;
    qsizetype m_position = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static MemoryFile file;
    Fuzz::Bytes bytes(data, size);
    const int blocks = 1 + bytes.below(6);
    const int repeats = 1 + bytes.below(40); // long files from short inputs
    const QByteArray content = bytes.rest().repeated(repeats);
    file.fill(content);

    Desk desk;
    QTovelMixerApiFile api(file.path(), 2, QString(), 0, 44100, "Files");
    api.setEngine(&desk);
    api.updateDeviceList();
    Fuzz::require(api.open(nullptr, api.devices().at(0), 44100), "the file can be opened");
    Player player(content);
    for (int block = 0; block < blocks; ++block) {
        api.mixerTimeout();
        Fuzz::require(desk.probe.blocks().size() == block + 1, "every block is mixed");
        Fuzz::require(desk.probe.blocks().last() == player.block(), "the file plays in a loop");
    }
    return 0;
}
