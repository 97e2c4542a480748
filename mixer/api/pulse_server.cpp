// SPDX-License-Identifier: MIT
// The client library is loaded when it is asked for: hosts without PulseAudio need not have it.
#include <mixer/api/pulse_server_p.h>

#if defined(__linux__) && __has_include(<pulse/pulseaudio.h>)

#include <QtCore/QDeadlineTimer>
#include <QtCore/QLibrary>

#include <pulse/pulseaudio.h>

namespace QTovelMixer {

namespace {

struct PulseLibrary
{
    QLibrary file{QStringLiteral("pulse"), 0};
    bool complete = true;

    template <typename Function>
    Function *find(const char *name)
    {
        auto *function = reinterpret_cast<Function *>(file.resolve(name));
        complete = complete && function;
        return function;
    }

#define QTOVELMIXER_PULSE(name) decltype(::name) *name = find<decltype(::name)>(#name)
    QTOVELMIXER_PULSE(pa_mainloop_new);
    QTOVELMIXER_PULSE(pa_mainloop_free);
    QTOVELMIXER_PULSE(pa_mainloop_get_api);
    QTOVELMIXER_PULSE(pa_mainloop_prepare);
    QTOVELMIXER_PULSE(pa_mainloop_poll);
    QTOVELMIXER_PULSE(pa_mainloop_dispatch);
    QTOVELMIXER_PULSE(pa_context_new);
    QTOVELMIXER_PULSE(pa_context_connect);
    QTOVELMIXER_PULSE(pa_context_disconnect);
    QTOVELMIXER_PULSE(pa_context_unref);
    QTOVELMIXER_PULSE(pa_context_get_state);
    QTOVELMIXER_PULSE(pa_context_get_server_info);
    QTOVELMIXER_PULSE(pa_operation_get_state);
    QTOVELMIXER_PULSE(pa_operation_unref);
#undef QTOVELMIXER_PULSE
};

struct Question
{
    const PulseLibrary &pulse;
    QDeadlineTimer deadline;
    pa_mainloop *loop = nullptr;
    pa_context *context = nullptr;

    Question(const PulseLibrary &library, int timeout)
        : pulse(library), deadline(timeout, Qt::PreciseTimer), loop(pulse.pa_mainloop_new()),
          context(loop ? pulse.pa_context_new(pulse.pa_mainloop_get_api(loop), "device probe")
                       : nullptr)
    {}
    ~Question()
    {
        if (context) {
            pulse.pa_context_disconnect(context);
            pulse.pa_context_unref(context);
        }
        if (loop)
            pulse.pa_mainloop_free(loop);
    }
    Q_DISABLE_COPY_MOVE(Question)

    /// Handles what has arrived. False at the deadline, or when the loop failed.
    bool turn()
    {
        const int left = int(deadline.remainingTime());
        return left > 0 && pulse.pa_mainloop_prepare(loop, left * 1000) >= 0 &&
               pulse.pa_mainloop_poll(loop) >= 0 && pulse.pa_mainloop_dispatch(loop) >= 0;
    }

    PulseServerState connectToServer();
    PulseServerState askForDefaults();
};

PulseServerState Question::connectToServer()
{
    if (!context)
        return PulseServerState::NoAnswer;
    if (pulse.pa_context_connect(context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0)
        return PulseServerState::NoServer;
    for (;;) {
        const pa_context_state_t state = pulse.pa_context_get_state(context);
        if (state == PA_CONTEXT_READY)
            return PulseServerState::Ready;
        if (!PA_CONTEXT_IS_GOOD(state))
            return PulseServerState::NoServer;
        if (!turn())
            return PulseServerState::NoAnswer;
    }
}

PulseServerState Question::askForDefaults()
{
    bool both = false;
    const auto read = [](pa_context *, const pa_server_info *info, void *answer) {
        *static_cast<bool *>(answer) = info && info->default_sink_name && info->default_source_name;
    };
    pa_operation *operation = pulse.pa_context_get_server_info(context, read, &both);
    if (!operation)
        return PulseServerState::NoServer;
    while (pulse.pa_operation_get_state(operation) == PA_OPERATION_RUNNING) {
        if (!turn()) {
            pulse.pa_operation_unref(operation);
            return PulseServerState::NoAnswer;
        }
    }
    pulse.pa_operation_unref(operation);
    return both ? PulseServerState::Ready : PulseServerState::NoDefaults;
}

} // namespace

PulseServerState pulseServerState(int timeout)
{
    static const PulseLibrary pulse;
    if (!pulse.complete)
        return PulseServerState::Unknown;
    Question question(pulse, timeout);
    const PulseServerState connected = question.connectToServer();
    return connected == PulseServerState::Ready ? question.askForDefaults() : connected;
}

} // namespace QTovelMixer

#else

namespace QTovelMixer {

PulseServerState pulseServerState(int)
{
    return PulseServerState::Unknown;
}

} // namespace QTovelMixer

#endif
