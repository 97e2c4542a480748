// SPDX-License-Identifier: MIT
// The control thread: making, calling, ending.
#include <mixer/api/rtaudio_answer_p.h>
#include <mixer/api/rtaudio_instance_p.h>

#include <QtCore/QDebug>
#include <base/log_line_p.h>

#include <system_error>
#include <utility>

namespace QTovelMixer {

namespace {

constexpr int lookInterval = 20; // ms
// RtAudio closes a JACK stream by itself when its server dies, on a thread of its own: what is
// deleted under it ends the process.
constexpr int disconnectDelay = 250;  // ms that it may take to begin
constexpr int ownCloseTimeout = 1500; // ms that it may take, less than its callers wait
constexpr int idleInterval = 1000;    // ms, after a stream

} // namespace

RtAudioInstance::Made RtAudioInstance::make(RtAudio::Api api, const QDeadlineTimer &deadline)
{
    auto instance = std::make_shared<RtAudioInstance>(Private());
    try {
        instance->m_thread = std::thread([instance, api] { instance->run(api); });
    } catch (const std::system_error &) {
        writeWarning("Mixer Api: Cannot start a thread!");
        return {nullptr, true};
    }
    QMutexLocker locker(&instance->m_mutex);
    while (!instance->m_ready) {
        if (!instance->m_changed.wait(&instance->m_mutex, deadline) && !instance->m_ready) {
            locker.unlock();
            instance->m_stuck = true;
            instance->detach(0);
            instance->end(QDeadlineTimer(0));
            return {};
        }
    }
    locker.unlock();
    if (!instance->m_driver) {
        instance->m_thread.join();
        return {nullptr, instance->m_threw};
    }
    return {instance, false};
}

void RtAudioInstance::run(RtAudio::Api api)
{
    m_controlId = std::this_thread::get_id();
    const auto onError = [this](RtAudioErrorType type, const std::string &text) {
        receiveError(type, text);
    };
    std::unique_ptr<RtAudioDriver> driver;
    RtAudio::Api actual = RtAudio::UNSPECIFIED;
    bool threw = false;
    try {
        driver = rtAudioSystem().makeDriver(api, onError);
        if (driver)
            actual = driver->currentApi();
    } catch (...) {
        threw = true;
        driver.reset();
    }
    {
        const QMutexLocker locker(&m_mutex);
        m_driver = std::move(driver);
        m_api = actual;
        m_threw = threw;
        m_ready = true;
        m_changed.wakeAll();
    }
    if (!m_driver)
        return;
    work();
    finish();
}

void RtAudioInstance::work()
{
    bool used = false;
    QMutexLocker locker(&m_mutex);
    for (;;) {
        if (!m_jobs.empty()) {
            const Job job = std::move(m_jobs.front());
            m_jobs.pop_front();
            locker.unlock();
            job(*m_driver);
            locker.relock();
            continue;
        }
        if (m_ending)
            return;
        locker.unlock();
        // Once more after RtAudio has closed a stream by itself: it has left a word why.
        const bool open = m_driver->isStreamOpen();
        if (open || used || m_disconnectPending)
            lookAfterStream(open);
        const bool again = open || m_disconnectPending;
        locker.relock();
        // Words of RtAudio's own threads may come a little after the stream has closed.
        used = used || open;
        if (m_jobs.empty() && !m_ending)
            m_changed.wait(&m_mutex, again  ? QDeadlineTimer(lookInterval)
                                     : used ? QDeadlineTimer(idleInterval)
                                            : QDeadlineTimer(QDeadlineTimer::Forever));
    }
}

namespace {

// An orphan's callbacks still know the instance, also while the process ends.
void leak(std::shared_ptr<RtAudioInstance> orphan)
{
    static QMutex mutex;
    static auto *const orphans = new std::vector<std::shared_ptr<RtAudioInstance>>;
    const QMutexLocker locker(&mutex);
    orphans->push_back(std::move(orphan));
}

} // namespace

// What still runs now is wedged for good: deleting it would hang or end the process.
void RtAudioInstance::finish()
{
    if (!m_abandoned)
        waitForOwnEnd();
    writeNotes();
    if (m_abandoned || m_driver->isStreamRunning() ||
        (m_disconnected && m_driver->isStreamOpen())) {
        leak(shared_from_this());
    } else {
        m_driver.reset();
    }
    const QMutexLocker locker(&m_mutex);
    m_ended = true;
    m_changed.wakeAll();
}

void RtAudioInstance::waitForOwnEnd()
{
    // A start that came back late: its muted callback ends the stream, but for JACK's.
    if (m_late && m_api == RtAudio::UNIX_JACK && !m_disconnected && m_driver->isStreamRunning())
        attempt(*m_driver, [this] { return m_driver->abortStream(); });
    if (m_late)
        poll(ownCloseTimeout, [this] { return !m_driver->isStreamRunning(); });
    if (m_api != RtAudio::UNIX_JACK || !m_driver->isStreamOpen())
        return;
    poll(disconnectDelay, [this] { return m_disconnected.load(); });
    waitForOwnClose();
}

void RtAudioInstance::waitForOwnClose()
{
    if (m_disconnected)
        poll(ownCloseTimeout, [this] { return !m_driver->isStreamOpen(); });
}

bool RtAudioInstance::call(Job job, const QDeadlineTimer &deadline)
{
    struct Pending
    {
        QMutex mutex;
        QWaitCondition done;
        bool isDone = false;
    };
    const auto pending = std::make_shared<Pending>();
    post([pending, job = std::move(job)](RtAudioDriver &driver) {
        try {
            job(driver);
        } catch (...) {
            writeWarning("QTovelMixerApiRtAudio: RtAudio :: exception received!");
        }
        const QMutexLocker locker(&pending->mutex);
        pending->isDone = true;
        pending->done.wakeAll();
    });
    const QMutexLocker locker(&pending->mutex);
    while (!pending->isDone) {
        if (!pending->done.wait(&pending->mutex, deadline))
            break;
    }
    if (pending->isDone)
        return true;
    m_stuck = true;
    const QMutexLocker jobs(&m_mutex);
    m_jobs.clear(); // what has not begun must not begin now
    return false;
}

void RtAudioInstance::post(Job job)
{
    const QMutexLocker locker(&m_mutex);
    m_jobs.push_back(std::move(job));
    m_changed.wakeAll();
}

void RtAudioInstance::detach(int timeout)
{
    m_owner = nullptr;
    poll(timeout, [this] { return m_inside.load() == 0; });
}

bool RtAudioInstance::end(const QDeadlineTimer &deadline)
{
    QMutexLocker locker(&m_mutex);
    m_ending = true;
    m_late = m_stuck;
    m_changed.wakeAll();
    while (!m_ended) {
        if (!m_changed.wait(&m_mutex, deadline))
            break;
    }
    const bool ended = m_ended;
    locker.unlock();
    if (ended)
        m_thread.join();
    else
        m_thread.detach();
    return ended;
}

bool RtAudioInstance::hasEnded()
{
    const QMutexLocker locker(&m_mutex);
    return m_ended;
}

RtAudioInstance::Visit::Visit(RtAudioInstance &visited) noexcept : instance(visited), owner(nullptr)
{
    ++instance.m_inside;
    owner = instance.m_owner;
}

} // namespace QTovelMixer
