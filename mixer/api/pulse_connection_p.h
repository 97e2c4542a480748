// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_API_PULSE_CONNECTION_P_H
#define QTOVELMIXER_MIXER_API_PULSE_CONNECTION_P_H

#include <QtCore/QtGlobal>

#include <pulse/pulseaudio.h>

#include <functional>
#include <string>
#include <vector>

namespace QTovelMixer {

/// A connection to the PulseAudio server that clients of this process use, with the client
/// library's loop in a thread of its own. No call waits longer than the deadline that was set,
/// whatever the server does, and its destructor waits for no server at all.
///
/// Threads: one at a time. What `loop()` calls back runs on the loop's thread, and so does `lost`,
/// each of them while the loop is locked.
class PulseConnection
{
public:
    PulseConnection() = default;
    ~PulseConnection();
    Q_DISABLE_COPY_MOVE(PulseConnection)

    /// The loop stands still for the life of the lock.
    class Lock
    {
    public:
        explicit Lock(PulseConnection &connection) : m_loop(connection.m_loop)
        {
            pa_threaded_mainloop_lock(m_loop);
        }
        ~Lock() { pa_threaded_mainloop_unlock(m_loop); }
        Q_DISABLE_COPY_MOVE(Lock)

    private:
        pa_threaded_mainloop *m_loop;
    };

    /// `client`: the name that users see. All waiting, this and what follows, ends `timeout` ms
    /// from now. Errors: false, and `reason()` tells why.
    bool open(const std::string &client, int timeout);
    /// Under the lock: one more to the same server, on the same loop, under the same name and
    /// deadline. The connection is good while both are. Errors: null.
    pa_context *openAnother();

    /// The first one.
    pa_context *context() const { return m_contexts.empty() ? nullptr : m_contexts.front(); }
    /// Called once when an open connection ends by itself. Set it while the loop is locked.
    void setLost(std::function<void()> lost) { m_lost = std::move(lost); }

    /// Under the lock: waits until the condition holds. False at the deadline or without a server.
    /// Whatever may change the condition must call `wake`.
    template <typename Condition>
    bool wait(Condition condition)
    {
        while (!condition()) {
            if (m_expired || !isGood())
                return false;
            pa_threaded_mainloop_wait(m_loop);
        }
        return true;
    }
    /// Under the lock: waits for the operation and lets it go.
    bool waitFor(pa_operation *operation);
    void wake() { pa_threaded_mainloop_signal(m_loop, 0); }
    /// Under the lock: the loop's thread calls `function` next.
    void callSoon(void (*function)(pa_mainloop_api *, void *), void *user);

    bool isGood() const;
    /// Under the lock: why the last call failed, in the client library's words.
    std::string reason() const;

    /// Ends the loop's thread: nothing is called back any more.
    void halt();

private:
    pa_context *connect();
    bool waitForReady(pa_context *context);
    static void onState(pa_context *context, void *self);

    pa_threaded_mainloop *m_loop = nullptr;
    std::vector<pa_context *> m_contexts;
    std::string m_client;
    std::function<void()> m_lost;
    std::string m_reason;
    bool m_started = false;
    bool m_ready = false;
    bool m_expired = false;
};

} // namespace QTovelMixer

#endif
