// SPDX-License-Identifier: MIT
#include <mixer/api/pulse_connection_p.h>

#include <algorithm>
#include <utility>

namespace QTovelMixer {

PulseConnection::~PulseConnection()
{
    halt();
    for (pa_context *context : m_contexts) {
        pa_context_set_state_callback(context, nullptr, nullptr);
        pa_context_disconnect(context);
        pa_context_unref(context);
    }
    if (m_loop)
        pa_threaded_mainloop_free(m_loop);
}

bool PulseConnection::open(const std::string &client, int timeout)
{
    m_client = client;
    m_loop = pa_threaded_mainloop_new();
    pa_context *const context = connect();
    if (!context)
        return false;
    if (pa_threaded_mainloop_start(m_loop) < 0) {
        m_reason = "no thread for the connection";
        return false;
    }
    m_started = true;
    const Lock lock(*this);
    const auto expire = [](pa_mainloop_api *, pa_time_event *, const timeval *, void *self) {
        auto &connection = *static_cast<PulseConnection *>(self);
        connection.m_expired = true;
        connection.wake();
    };
    pa_context_rttime_new(context, pa_rtclock_now() + pa_usec_t(timeout) * PA_USEC_PER_MSEC, expire,
                          this);
    m_ready = waitForReady(context);
    return m_ready;
}

pa_context *PulseConnection::openAnother()
{
    pa_context *const context = connect();
    return context && waitForReady(context) ? context : nullptr;
}

pa_context *PulseConnection::connect()
{
    pa_context *const context =
        m_loop ? pa_context_new(pa_threaded_mainloop_get_api(m_loop), m_client.c_str()) : nullptr;
    if (!context) {
        m_reason = "out of memory";
        return nullptr;
    }
    m_contexts.push_back(context);
    pa_context_set_state_callback(context, &onState, this);
    // A server is never started from here: that would copy the host's process.
    if (pa_context_connect(context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
        m_reason = pa_strerror(pa_context_errno(context));
        return nullptr;
    }
    return context;
}

bool PulseConnection::waitForReady(pa_context *context)
{
    return wait([context] { return pa_context_get_state(context) == PA_CONTEXT_READY; });
}

void PulseConnection::onState(pa_context *context, void *self)
{
    auto &connection = *static_cast<PulseConnection *>(self);
    connection.wake();
    if (PA_CONTEXT_IS_GOOD(pa_context_get_state(context)))
        return;
    connection.m_reason = pa_strerror(pa_context_errno(context));
    if (connection.m_ready && connection.m_lost)
        std::exchange(connection.m_lost, nullptr)();
}

bool PulseConnection::isGood() const
{
    return !m_contexts.empty() &&
           std::all_of(m_contexts.begin(), m_contexts.end(), [](pa_context *context) {
               return PA_CONTEXT_IS_GOOD(pa_context_get_state(context));
           });
}

std::string PulseConnection::reason() const
{
    if (!m_reason.empty())
        return m_reason;
    return m_expired ? "the sound server does not answer"
                     : pa_strerror(pa_context_errno(context()));
}

bool PulseConnection::waitFor(pa_operation *operation)
{
    if (!operation)
        return false;
    pa_operation_set_state_callback(
        operation, [](pa_operation *, void *self) { static_cast<PulseConnection *>(self)->wake(); },
        this);
    const bool done =
        wait([operation] { return pa_operation_get_state(operation) != PA_OPERATION_RUNNING; });
    pa_operation_set_state_callback(operation, nullptr, nullptr);
    if (!done)
        pa_operation_cancel(operation);
    pa_operation_unref(operation);
    return done;
}

void PulseConnection::callSoon(void (*function)(pa_mainloop_api *, void *), void *user)
{
    pa_mainloop_api_once(pa_threaded_mainloop_get_api(m_loop), function, user);
}

void PulseConnection::halt()
{
    if (m_started)
        pa_threaded_mainloop_stop(m_loop);
    m_started = false;
}

} // namespace QTovelMixer
