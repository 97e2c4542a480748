// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_API_RTAUDIO_INSTANCE_P_H
#define QTOVELMIXER_MIXER_API_RTAUDIO_INSTANCE_P_H

#include <base/nonblocking.h>
#include <mixer/aligned_vector.h>
#include <mixer/api/note_queue_p.h>
#include <mixer/api/rtaudio_driver_p.h>
#include <mixer/api/stream_watch_p.h>

#include <QtCore/QDeadlineTimer>
#include <QtCore/QElapsedTimer>
#include <QtCore/QMutex>
#include <QtCore/QWaitCondition>

#include <atomic>
#include <chrono>
#include <deque>
#include <thread>

namespace QTovelMixer {

class RtAudioInstance;

/// What an instance tells its backend.
class RtAudioOwner
{
public:
    /// One block. Threads: audio. Real-time: yes.
    virtual int streamBlock(void *output, void *input, unsigned frames, double streamTime,
                            unsigned status) noexcept QTOVELMIXER_NONBLOCKING = 0;
    /// RtAudio reported an error. Threads: the control thread, or main.
    virtual void streamError(const std::string &text) = 0;
    /// The device has failed. Threads: the control thread, or main.
    virtual void streamLost(RtAudioInstance &instance) = 0;

protected:
    ~RtAudioOwner() = default;
};

/// One RtAudio instance with a thread of its own, on which all calls into it run. Callers wait for
/// a call only as long as they choose; an instance whose call never comes back is retired, and
/// deletes itself when it does. It is what the stream's callback and the error callback know, so
/// that neither ever meets a backend that is gone.
///
/// While a stream is open, the control thread also looks after it, every 20 ms: it writes what the
/// audio thread may not write, and reports a device that has died.
class RtAudioInstance : public std::enable_shared_from_this<RtAudioInstance>
{
    struct Private
    {};

public:
    using Job = std::function<void(RtAudioDriver &)>;

    /// Prefix of every error text in the log.
    static constexpr const char *errorPrefix = "QTovelMixerApiRtAudio__ErrorCallback: ";

    struct Made
    {
        std::shared_ptr<RtAudioInstance> instance; ///< null when RtAudio failed or did not answer
        bool threw = false;
    };
    static Made make(RtAudio::Api api, const QDeadlineTimer &deadline);

    explicit RtAudioInstance(Private) {}
    ~RtAudioInstance() = default;
    Q_DISABLE_COPY_MOVE(RtAudioInstance)

    RtAudio::Api api() const { return m_api; }

    /// Runs `job` on the control thread. False when it did not come back in time; then the instance
    /// must be retired, and `job` must not touch anything of the caller's.
    bool call(Job job, const QDeadlineTimer &deadline);
    /// Runs `job` some time later.
    void post(Job job);

    bool isOpen() const { return m_driver && m_driver->isStreamOpen(); }
    bool isRunning() const { return m_driver && m_driver->isStreamRunning(); }
    /// A call has not come back, or never will.
    bool isStuck() const { return m_stuck; }
    /// A stream was opened on it.
    bool wasUsed() const { return m_used; }
    void setUsed() { m_used = true; }
    /// Its devices were listed, and their flags are of that time.
    bool wasProbed() const { return m_probed; }
    void setProbed() { m_probed = true; }

    /// Before `startStream`: resets the watch over the stream.
    void beginStream(unsigned rate);
    /// No block is running, and none will be until the next start. Threads: main.
    void setStarted(bool started) { m_started = started; }

    /// Blocks and failures go to `owner` from now on; before that, errors are only logged.
    void attach(RtAudioOwner *owner) { m_owner = owner; }
    /// From now on the stream plays silence and ends, and errors are only logged. Waits until
    /// nobody is inside the owner any more, for at most `timeout` ms.
    void detach(int timeout);
    /// Hands the instance to its thread for deletion. True when that is done.
    bool end(const QDeadlineTimer &deadline);
    bool hasEnded();

    /// The server is gone, and RtAudio has not finished closing the stream by itself: no call must
    /// be made any more. Threads: main.
    bool mustBeLeft() const { return m_disconnected && isOpen(); }
    void leave() { m_stuck = true; }
    /// No call must ever be made any more, its deletion included.
    void abandon()
    {
        m_abandoned = true;
        m_stuck = true;
    }
    /// Frames, input and output together, as last seen.
    long latency() const { return m_latency; }
    int schedulingPolicy() const { return m_policy; }
    int schedulingPriority() const { return m_priority; }

    /// Before a running stream is taken down: waits for a sign of life. False when the server has
    /// died, and RtAudio has closed the stream by itself. Threads: the control thread.
    bool awaitLife();

    static int streamCallback(void *output, void *input, unsigned frames, double streamTime,
                              RtAudioStreamStatus status,
                              void *userData) noexcept QTOVELMIXER_NONBLOCKING;
    /// A warning from the audio thread on its way to the log. Real-time: yes.
    void warn(std::string_view text) noexcept QTOVELMIXER_NONBLOCKING
    {
        m_notes.push(warningNote, text);
    }

    unsigned outputChannels = 0; ///< of the open stream
    /// The stream's blocks: they live until no callback can reach them.
    std::shared_ptr<aligned_vector<float, 16>> inputBlock;
    std::shared_ptr<aligned_vector<float, 16>> outputBlock;

private:
    static constexpr int warningNote = -1; ///< other kinds are RtAudio's error types

    /// RtAudio tells of nothing that can be waited for: what it does is looked at every
    /// millisecond, for at most `timeout` ms. Answers the condition. Threads: any but audio.
    template <typename Condition>
    static bool poll(int timeout, Condition condition)
    {
        const QDeadlineTimer deadline(timeout);
        while (!condition()) {
            if (deadline.hasExpired())
                return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return true;
    }

    /// Somebody is inside the owner, or there is no owner any more.
    struct Visit
    {
        explicit Visit(RtAudioInstance &visited) noexcept QTOVELMIXER_NONBLOCKING;
        ~Visit() { --instance.m_inside; }
        Q_DISABLE_COPY_MOVE(Visit)

        RtAudioInstance &instance;
        RtAudioOwner *owner;
    };

    void run(RtAudio::Api api);
    void work();
    void finish();
    void waitForOwnEnd();
    /// Waits while RtAudio closes a JACK stream whose server has died.
    void waitForOwnClose();
    void handleError(const std::string &text);
    void receiveError(RtAudioErrorType type, const std::string &text);
    int streamBlock(void *output, void *input, unsigned frames, double streamTime,
                    unsigned status) noexcept QTOVELMIXER_NONBLOCKING;
    void lookAfterStream(bool open);
    void writeNotes();
    void readScheduling();
    bool hasStalled();
    bool isFailure(RtAudioErrorType type) const;
    void reportDisconnect();
    void reportLoss();

    std::atomic<RtAudioOwner *> m_owner{nullptr};
    std::atomic<int> m_inside{0};

    // The control thread.
    std::thread m_thread;
    std::atomic<std::thread::id> m_controlId{};
    const std::thread::id m_maker = std::this_thread::get_id();
    QMutex m_mutex;
    QWaitCondition m_changed;
    std::deque<Job> m_jobs;
    bool m_ready = false;
    bool m_threw = false;
    bool m_ending = false;
    bool m_ended = false;
    bool m_stuck = false;  ///< main only
    bool m_used = false;   ///< main only
    bool m_probed = false; ///< main only
    RtAudio::Api m_api = RtAudio::UNSPECIFIED;
    std::unique_ptr<RtAudioDriver> m_driver;

    // The stream.
    StreamWatch m_watch;
    NoteQueue m_notes;
    std::atomic<quint64> m_calls{0};  ///< of the callback
    std::atomic<quint64> m_blocks{0}; ///< that reached the owner
    std::atomic<quint64> m_warnings{0};
    std::atomic<quint64> m_warningsAtBlock{0}; ///< when the last block came
    std::atomic<bool> m_failed{false};         ///< it plays silence and ends
    std::atomic<bool> m_lost{false};           ///< to be reported
    std::atomic<bool> m_endAsked{false};       ///< the control thread shall end the stream
    std::atomic<bool> m_started{false};
    std::atomic<bool> m_disconnected{false};
    std::atomic<bool> m_abandoned{false};
    std::atomic<bool> m_late{false}; ///< retired while a call hung
    std::atomic<long> m_latency{0};
    std::atomic<quintptr> m_audioThread{0};
    std::atomic<int> m_policy{-1};
    std::atomic<int> m_priority{0};

    // The control thread's look at it.
    bool m_reported = false;
    bool m_disconnectPending = false;
    bool m_disconnectSeen = false;
    QElapsedTimer m_sinceDisconnect;
    QElapsedTimer m_sinceBlock;
    quint64 m_seenBlocks = 0;
};

} // namespace QTovelMixer

#endif
