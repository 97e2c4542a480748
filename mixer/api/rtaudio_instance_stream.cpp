// SPDX-License-Identifier: MIT
// The stream: its callback, its errors, and the look after it.
#include <mixer/api/rtaudio_answer_p.h>
#include <mixer/api/rtaudio_instance_p.h>

#include <base/clock_p.h>
#include <base/log_line_p.h>
#include <mixer/api/block_answer_p.h>

#include <QtCore/QDebug>

#include <algorithm>

#if defined(__unix__) || defined(__APPLE__)
#include <pthread.h>
#endif

namespace QTovelMixer {

namespace {

constexpr int stallTime = 500;      // ms without a block after a warning
constexpr int disconnectTime = 200; // ms that RtAudio may need to close what has died
constexpr int lifeTimeout = 400;    // ms, longer than JACK's longest block
constexpr int loggedNotes = 8;      // lines per look

} // namespace

void RtAudioInstance::beginStream(unsigned rate)
{
    m_watch.begin(rate, m_api != RtAudio::UNIX_JACK);
    m_warnings = 0;
    m_warningsAtBlock = 0;
    m_failed = false;
    m_endAsked = false;
    m_audioThread = 0;
    m_policy = -1;
    post([this](RtAudioDriver &) {
        m_reported = false;
        m_seenBlocks = m_blocks;
        m_sinceBlock.start();
    });
}

int RtAudioInstance::streamCallback(void *output, void *input, unsigned frames, double streamTime,
                                    RtAudioStreamStatus status, void *userData) noexcept
{
    auto &instance = *static_cast<RtAudioInstance *>(userData);
    const int answer = instance.streamBlock(output, input, frames, streamTime, status);
    if (answer == BlockAnswer::goOn || instance.m_api != RtAudio::UNIX_JACK)
        return answer;
    // On JACK RtAudio would stop the stream from a thread of its own, beside what the control
    // thread does with it: two that take one client down.
    instance.m_endAsked = true;
    return BlockAnswer::goOn;
}

int RtAudioInstance::streamBlock(void *output, void *input, unsigned frames, double streamTime,
                                 unsigned status) noexcept
{
    const auto silence = [&] {
        if (output)
            std::fill_n(static_cast<float *>(output), size_t(frames) * outputChannels, 0.0f);
        return BlockAnswer::abort;
    };
    m_calls.fetch_add(1, std::memory_order_relaxed);
    const Visit visit(*this);
    if (!visit.owner || m_failed)
        return silence();
#if defined(__unix__) || defined(__APPLE__)
    // It reads a register.
    m_audioThread.store(assumeNonblocking([] { return quintptr(pthread_self()); }),
                        std::memory_order_relaxed);
#endif
    const qint64 now = monotonicNanoseconds();
    const quint64 warnings = m_warnings.load(std::memory_order_relaxed);
    m_warningsAtBlock.store(warnings, std::memory_order_relaxed);
    if (!m_watch.block(frames, now, warnings)) {
        m_failed = true;
        return silence();
    }
    m_blocks.fetch_add(1, std::memory_order_relaxed);
    return visit.owner->streamBlock(output, input, frames, streamTime, status);
}

bool RtAudioInstance::isFailure(RtAudioErrorType type) const
{
    const bool inUse = type == RTAUDIO_DRIVER_ERROR || type == RTAUDIO_SYSTEM_ERROR ||
                       type == RTAUDIO_THREAD_ERROR;
    return type == RTAUDIO_DEVICE_DISCONNECT || (inUse && isRunning());
}

// RtAudio calls from the control thread, from its audio threads, and from threads of its own. What
// an error means is decided at once, since the stream may end before anybody looks.
void RtAudioInstance::receiveError(RtAudioErrorType type, const std::string &text)
{
    const std::thread::id caller = std::this_thread::get_id();
    if (caller == m_controlId.load() || caller == m_maker) {
        handleError(text);
        if (isFailure(type))
            reportLoss();
        return;
    }
    if (type == RTAUDIO_WARNING)
        m_warnings.fetch_add(1, std::memory_order_relaxed);
    if (type == RTAUDIO_DEVICE_DISCONNECT && m_api == RtAudio::UNIX_JACK)
        m_disconnected = true;
    else if (isFailure(type))
        m_lost = true;
    m_notes.push(type, text);
}

void RtAudioInstance::handleError(const std::string &text)
{
    composeLine(QtInfoMsg, [&text](QDebug &line) {
        line.nospace().noquote() << errorPrefix << QString::fromStdString(text);
    });
    const Visit visit(*this);
    if (visit.owner)
        visit.owner->streamError(text);
}

void RtAudioInstance::reportLoss()
{
    const Visit visit(*this);
    if (visit.owner)
        visit.owner->streamLost(*this);
}

void RtAudioInstance::lookAfterStream(bool open)
{
    writeNotes();
    reportDisconnect();
    if (m_lost.exchange(false))
        reportLoss();
    if (!open || m_disconnected)
        return;
    attempt(*m_driver, [this] {
        m_latency = m_driver->latency();
        return RTAUDIO_NO_ERROR;
    });
    if (m_policy < 0)
        readScheduling();
    if (m_endAsked.exchange(false) && m_driver->isStreamRunning() && awaitLife())
        attempt(*m_driver, [this] { return m_driver->abortStream(); });
    if (m_reported)
        return;
    const bool stalled = hasStalled();
    if (stalled) {
        writeWarning(
            "QTovelMixerApiRtAudio: the device has stopped asking for blocks -- aborting the "
            "stream");
        m_failed = true;
    }
    if (!m_failed)
        return;
    m_reported = true;
    reportLoss();
    if (stalled)
        attempt(*m_driver, [this] { return m_driver->abortStream(); });
}

void RtAudioInstance::writeNotes()
{
    NoteQueue::Note note;
    quint64 left = 0;
    for (int written = 0; m_notes.pop(note);) {
        const std::string text(note.view());
        const bool warning = note.kind == RTAUDIO_WARNING || note.kind == warningNote;
        if (warning && ++written > loggedNotes)
            ++left;
        else if (note.kind == warningNote)
            writeWarning("%s", text.c_str());
        else
            handleError(text);
    }
    left += m_notes.takeLost();
    if (left > 0) {
        composeLine(QtInfoMsg, [left](QDebug &line) {
            line.nospace().noquote() << errorPrefix << "and " << left << " more";
        });
    }
}

// JACK's own teardown must have ended before anybody touches the stream.
void RtAudioInstance::reportDisconnect()
{
    if (m_disconnected && !m_disconnectSeen) {
        m_disconnectSeen = true;
        m_disconnectPending = true;
        m_sinceDisconnect.start();
    }
    if (!m_disconnectPending ||
        (m_driver->isStreamOpen() && m_sinceDisconnect.elapsed() < disconnectTime))
        return;
    m_disconnectPending = false;
    m_reported = true;
    reportLoss();
}

// RtAudio closes a JACK client by itself, from another thread, a little after its server has died:
// who takes the client down at that moment ends the process.
bool RtAudioInstance::awaitLife()
{
    if (m_api != RtAudio::UNIX_JACK)
        return true;
    const quint64 before = m_calls;
    poll(lifeTimeout, [this, before] {
        return !m_driver->isStreamRunning() || m_calls != before || m_disconnected;
    });
    waitForOwnClose();
    return !m_disconnected;
}

// Servers that change their block size say so once, and never call again.
bool RtAudioInstance::hasStalled()
{
    const quint64 blocks = m_blocks;
    if (blocks != m_seenBlocks || !m_started || !m_driver->isStreamRunning()) {
        m_seenBlocks = blocks;
        m_sinceBlock.start();
        return false;
    }
    return m_warnings != m_warningsAtBlock && m_sinceBlock.elapsed() >= stallTime;
}

// Asked for from here, since the audio thread must not make a system call. The thread lives: it
// ends in calls of this thread only, or with its server.
void RtAudioInstance::readScheduling()
{
#if defined(__unix__) || defined(__APPLE__)
    const quintptr thread = m_audioThread;
    if (thread == 0 || m_disconnected || !m_driver->isStreamRunning())
        return;
    sched_param parameters = {};
    int policy = 0;
    if (pthread_getschedparam(pthread_t(thread), &policy, &parameters) == 0) {
        m_priority = parameters.sched_priority;
        m_policy = policy;
    }
#endif
}

} // namespace QTovelMixer
