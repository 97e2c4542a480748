// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_API_API_RTAUDIO_P_H
#define QTOVELMIXER_MIXER_API_API_RTAUDIO_P_H

#include <base/hidden_p.h>
#include <base/nonblocking.h>
#include <mixer/api/api_rtaudio.h>
#include <mixer/api/rtaudio_answer_p.h>
#include <mixer/api/rtaudio_instance_p.h>
#include <mixer/api/rtaudio_probe_p.h>

#include <QtCore/QElapsedTimer>
#include <QtCore/QMutex>

namespace QTovelMixer {

constexpr int stopTimeout = 2000; ///< ms, also of abort, close and start
constexpr int openTimeout = 4000; ///< ms, also of enumeration

/// RtAudio's interfaces and the backends that stand for them.
Backend backendOf(RtAudio::Api api);
/// UNSPECIFIED for backends that name none, NUM_APIS for values that are no backend.
RtAudio::Api rtAudioApiOf(Backend backend);
/// The first preferred interface that is compiled in, RTAUDIO_DUMMY when none is.
RtAudio::Api preferedRtAudioApi();
bool isCompiled(RtAudio::Api api);

} // namespace QTovelMixer

struct QTOVELMIXER_HIDDEN QTovelMixerApiRtAudio::RtAudioData final : QTovelMixer::RtAudioOwner
{
    using Block = QTovelMixer::aligned_vector<float, 16>;
    using Instance = QTovelMixer::RtAudioInstance;

    /// What an opened stream got.
    struct Opened
    {
        unsigned rate = 0;
        unsigned frames = 0;
        unsigned inputChannels = 0;
        unsigned outputChannels = 0;
        int buffers = 0;
    };

    QTovelMixerApiRtAudio *const q;
    RtAudio::Api api;
    std::shared_ptr<Instance> audio; ///< null when there is none
    const std::thread::id maker = std::this_thread::get_id();
    std::atomic<Block *> inputBlock{nullptr}; ///< owned by the instance that streams
    std::atomic<Block *> outputBlock{nullptr};
    std::atomic<Instance *> streaming{nullptr}; ///< whose blocks these are
    std::atomic<int> apiInUse{-1}; ///< of the instance; failures are reported from other threads
    std::atomic<unsigned> inputChannels{0};
    std::atomic<unsigned> outputChannels{0};
    std::atomic<unsigned> streamRate{0};
    std::atomic<qint32> closing{0};
    std::atomic<qint32> callbacksInFlight{0};
    QFlags<Option> options;
    bool named = true; ///< the host gave a name

    qint64 timeLost = 0; ///< ms spent on calls that did not come back, since the event loop turned
    /// Instances that were left to themselves, and since when.
    struct Orphan
    {
        std::weak_ptr<Instance> instance;
        QElapsedTimer since;
    };
    std::vector<Orphan> orphans;
    quint64 generation = 0;       ///< counts the instances
    quint64 listedGeneration = 0; ///< the one that numbered the listed devices
    int buffers = 0;              ///< blocks that the interface was asked to keep

    std::atomic<quint64> blocks{0};
    std::atomic<quint64> overflows{0};
    std::atomic<quint64> underflows{0};
    std::atomic<quint64> droppedBlocks{0};
    std::atomic<quint64> lateBlocks{0};
    quint64 droppedByEngine = 0; ///< before this stream
    mutable QMutex errorMutex;
    QString lastError;

    RtAudioData(QTovelMixerApiRtAudio *backend, RtAudio::Api wanted, QFlags<Option> flags);

    void makeInstance();
    /// Lets the instance hand its blocks and failures to this object.
    void attach();
    /// When a call of at most `timeout` ms must have come back, so that all calls together hold
    /// the caller no longer than they may.
    QDeadlineTimer deadline(int timeout) const;
    /// Runs `job` on the instance. False when it did not come back.
    bool call(Instance::Job job, int timeout);
    bool isJackStuck() const;
    void addOrphan(const std::shared_ptr<Instance> &instance);
    /// Leaves nobody inside this object.
    void waitForOrphans();
    /// The same, and the instance is replaced when it did not come back.
    bool callOrReplace(Instance::Job job, int timeout);
    /// Counts time that a missed call took, until the event loop turns.
    void lose(qint64 milliseconds);
    /// The server does not answer: nobody waits for it again until the event loop turns.
    void giveUpThisTurn();
    QTovelMixer::RtAudioProbe probe();

    void adoptStream(const Opened &opened);
    void abortRunning();
    void closeOpen();
    void waitForCallbacks();
    void dropBlocks();

    /// Detaches the instance and has it deleted, or leaks it when it is wedged.
    void retire(int timeout);
    void replaceWedged();
    /// Replaces an instance whose server has died while RtAudio still closes its stream.
    bool replaceDead();
    void replaceUsed();
    /// Replaces an instance whose stream has closed by itself, or that could not be made.
    void refresh();

    void noteError(const std::string &text);
    StreamStatus status() const;

    int streamBlock(void *output, void *input, unsigned frames, double streamTime,
                    unsigned status) noexcept QTOVELMIXER_NONBLOCKING override;
    void streamError(const std::string &text) override;
    void streamLost(Instance &instance) override;
    // What `streamBlock` tells of a block that it does not mix.
    void tellClosing(unsigned frames, double streamTime) noexcept QTOVELMIXER_NONBLOCKING;
    void tellMissing(const Block *in, const Block *out,
                     unsigned frames) noexcept QTOVELMIXER_NONBLOCKING;
    void tellMismatch(const Block &in, size_t expectedIn, const Block &out,
                      size_t expectedOut) noexcept QTOVELMIXER_NONBLOCKING;
};

namespace QTovelMixer {

/// The tests' way to the private record.
struct RtAudioAccess
{
    static QTovelMixerApiRtAudio::RtAudioData &data(QTovelMixerApiRtAudio &api) { return *api.r; }
};

} // namespace QTovelMixer

#endif
