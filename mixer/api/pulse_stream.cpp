// SPDX-License-Identifier: MIT
// A fragment that the client library lends is given back before the loop goes on: a library that
// lost its server while one was out would wait for it for ever.
#include <mixer/api/pulse_stream_p.h>

#include <mixer/api/block_answer_p.h>

#include <algorithm>
#include <optional>

#include <pthread.h>
#include <sched.h>

namespace QTovelMixer {

namespace {

constexpr size_t largestFragment = 65536; // bytes

/// The first channels of a device's map.
pa_channel_map firstChannels(pa_channel_map map, unsigned channels)
{
    map.channels = uint8_t(std::min<unsigned>(map.channels, channels));
    return map;
}

template <typename Info>
void keepMap(pa_context *, const Info *info, int, void *map)
{
    if (info)
        *static_cast<std::optional<pa_channel_map> *>(map) = info->channel_map;
}

std::string lastError(pa_stream *stream)
{
    return pa_strerror(pa_context_errno(pa_stream_get_context(stream)));
}

void discard(pa_operation *operation)
{
    if (operation)
        pa_operation_unref(operation);
}

uint32_t blockBytes(unsigned frames, unsigned channels)
{
    return uint32_t(frames * channels * sizeof(float));
}

} // namespace

PulseStream::PulseStream(PulseStreamUser &user, const Format &format)
    : m_user(user), m_format(format)
{}

PulseStream::~PulseStream()
{
    m_connection.halt();
    for (pa_stream *stream : {m_output.stream, m_input.stream}) {
        if (!stream)
            continue;
        pa_stream_set_state_callback(stream, nullptr, nullptr);
        pa_stream_unref(stream);
    }
}

// Opening ---------------------------------------------------------------------------------------

bool PulseStream::connect(const std::string &client, int timeout)
{
    if (!m_connection.open(client, timeout))
        return false;
    const PulseConnection::Lock lock(m_connection);
    m_connection.setLost([this] { lose(m_connection.reason()); });
    return true;
}

std::string PulseStream::reason()
{
    return m_reason.empty() ? m_connection.reason() : m_reason;
}

bool PulseStream::openOutput(const std::string &sink, unsigned channels)
{
    const PulseConnection::Lock lock(m_connection);
    std::optional<pa_channel_map> map;
    if (!m_connection.waitFor(pa_context_get_sink_info_by_name(
            m_connection.context(), sink.c_str(),
            [](pa_context *context, const pa_sink_info *info, int end, void *answer) {
                keepMap(context, info, end, answer);
            },
            &map)) ||
        !map) {
        m_reason = m_connection.reason();
        return false;
    }
    return openSide(m_output, m_connection.context(), "Playback", sink, channels, *map,
                    &connectOutput);
}

bool PulseStream::openInput(const std::string &source, unsigned channels)
{
    const PulseConnection::Lock lock(m_connection);
    std::optional<pa_channel_map> map;
    if (!m_connection.waitFor(pa_context_get_source_info_by_name(
            m_connection.context(), source.c_str(),
            [](pa_context *context, const pa_source_info *info, int end, void *answer) {
                keepMap(context, info, end, answer);
            },
            &map)) ||
        !map) {
        m_reason = m_connection.reason();
        return false;
    }
    // PipeWire's PulseAudio face keeps what was recorded back while the same connection plays.
    pa_context *const context =
        m_output.stream ? m_connection.openAnother() : m_connection.context();
    if (!context) {
        m_reason = m_connection.reason();
        return false;
    }
    m_early.reserve(largestFragment / sizeof(float));
    return openSide(m_input, context, "Record", source, channels, *map, &connectInput);
}

int PulseStream::connectOutput(PulseStream &self, const std::string &device, pa_stream *stream,
                               pa_stream_flags_t flags)
{
    pa_buffer_attr attributes = {};
    attributes.maxlength =
        blockBytes(self.m_format.frames, self.m_output.channels) * self.m_format.buffers;
    attributes.tlength = uint32_t(-1);
    attributes.prebuf = uint32_t(-1);
    attributes.minreq = uint32_t(-1);
    pa_stream_set_write_callback(
        stream, [](pa_stream *, size_t, void *user) { static_cast<PulseStream *>(user)->pump(); },
        &self);
    pa_stream_set_underflow_callback(
        stream,
        [](pa_stream *, void *user) { static_cast<PulseStream *>(user)->m_outputDry = true; },
        &self);
    return pa_stream_connect_playback(stream, device.c_str(),
                                      self.m_format.buffers > 0 ? &attributes : nullptr, flags,
                                      nullptr, nullptr);
}

int PulseStream::connectInput(PulseStream &self, const std::string &device, pa_stream *stream,
                              pa_stream_flags_t flags)
{
    pa_buffer_attr attributes = {};
    attributes.maxlength = uint32_t(-1);
    attributes.fragsize = blockBytes(self.m_format.frames, self.m_input.channels);
    pa_stream_set_read_callback(
        stream, [](pa_stream *, size_t, void *user) { static_cast<PulseStream *>(user)->pump(); },
        &self);
    return pa_stream_connect_record(stream, device.c_str(), &attributes, flags);
}

// The loop is locked.
bool PulseStream::openSide(Side &side, pa_context *context, const char *name,
                           const std::string &device, unsigned channels, const pa_channel_map &map,
                           Connect connectTo)
{
    const pa_channel_map asked = firstChannels(map, channels);
    pa_sample_spec format = {};
    format.format = PA_SAMPLE_FLOAT32NE;
    format.rate = m_format.rate;
    format.channels = asked.channels;
    if (asked.channels != channels) {
        m_reason = "the device has fewer channels than it had";
        return false;
    }
    side.channels = channels;
    side.block.resize(size_t(m_format.frames) * channels);
    side.stream = pa_stream_new(context, name, &format, &asked);
    if (!side.stream) {
        m_reason = pa_strerror(pa_context_errno(context));
        return false;
    }
    pa_stream_set_state_callback(
        side.stream,
        [](pa_stream *stream, void *user) {
            auto &self = *static_cast<PulseStream *>(user);
            self.m_connection.wake();
            if (!PA_STREAM_IS_GOOD(pa_stream_get_state(stream)))
                self.lose(lastError(stream));
        },
        this);
    const auto flags = pa_stream_flags_t(PA_STREAM_START_CORKED | PA_STREAM_ADJUST_LATENCY |
                                         PA_STREAM_NO_REMAP_CHANNELS | PA_STREAM_NO_REMIX_CHANNELS);
    if (connectTo(*this, device, side.stream, flags) < 0 || !m_connection.wait([&] {
            return m_lost || pa_stream_get_state(side.stream) == PA_STREAM_READY;
        })) {
        m_reason = m_connection.reason();
        return false;
    }
    return !m_lost;
}

// Starting and stopping -------------------------------------------------------------------------

bool PulseStream::start()
{
    const PulseConnection::Lock lock(m_connection);
    if (m_lost)
        return false;
    m_time = 0.0;
    m_inputSamples = 0;
    m_outputLeft = 0;
    m_early.clear();
    m_inputLost = false;
    m_outputDry = false;
    m_running = true;
    m_user.streamBegun();
    for (pa_stream *stream : {m_output.stream, m_input.stream}) {
        if (stream)
            discard(pa_stream_cork(stream, 0, nullptr, nullptr));
    }
    m_connection.callSoon(
        [](pa_mainloop_api *, void *user) {
            auto &self = *static_cast<PulseStream *>(user);
            self.schedule();
            self.pump();
        },
        this);
    return true;
}

void PulseStream::stop(bool drained)
{
    const PulseConnection::Lock lock(m_connection);
    end(drained);
}

// The loop is locked. The server's answers are not waited for.
void PulseStream::end(bool drained)
{
    if (!m_running)
        return;
    m_running = false;
    if (m_output.stream && !m_lost) {
        if (drained) {
            discard(pa_stream_drain(m_output.stream, nullptr, nullptr));
        } else {
            discard(pa_stream_cork(m_output.stream, 1, nullptr, nullptr));
            discard(pa_stream_flush(m_output.stream, nullptr, nullptr));
        }
    }
    if (m_input.stream && !m_lost) {
        discard(pa_stream_cork(m_input.stream, 1, nullptr, nullptr));
        discard(pa_stream_flush(m_input.stream, nullptr, nullptr));
        while (pa_stream_readable_size(m_input.stream) > 0 &&
               pa_stream_get_state(m_input.stream) == PA_STREAM_READY) {
            const void *data = nullptr;
            size_t bytes = 0;
            if (pa_stream_peek(m_input.stream, &data, &bytes) < 0 || bytes == 0)
                break;
            pa_stream_drop(m_input.stream);
        }
    }
    m_user.streamEnded();
}

void PulseStream::lose(const std::string &text)
{
    if (m_lost)
        return;
    m_lost = true;
    if (m_reason.empty())
        m_reason = text;
    if (m_running) {
        m_running = false;
        m_user.streamEnded();
    }
    m_user.streamLost(text);
}

// Blocks ----------------------------------------------------------------------------------------

// The thread is the client library's, and has no rights of its own. Without the right it goes on as
// it is.
void PulseStream::schedule()
{
    if (!m_format.realtime || m_scheduled)
        return;
    m_scheduled = true;
    sched_param parameters = {};
    parameters.sched_priority = std::clamp(m_format.priority, sched_get_priority_min(SCHED_RR),
                                           sched_get_priority_max(SCHED_RR));
    pthread_setschedparam(pthread_self(), SCHED_RR, &parameters);
}

void PulseStream::pump()
{
    while (m_running) {
        if (m_output.stream && !giveOutput())
            return;
        if (m_input.stream && !takeInput())
            return;
        const int answer = m_user.streamBlock(m_output.stream ? m_output.block.data() : nullptr,
                                              m_input.stream ? m_input.block.data() : nullptr,
                                              m_format.frames, m_time, m_inputLost, m_outputDry);
        m_inputLost = false;
        m_outputDry = false;
        m_time += double(m_format.frames) / m_format.rate;
        if (m_output.stream && answer != BlockAnswer::abort)
            m_outputLeft = m_output.block.size();
        if (answer == BlockAnswer::drain)
            write(m_outputLeft);
        if (answer != BlockAnswer::goOn)
            end(answer == BlockAnswer::drain);
    }
}

// True when the next block is whole.
bool PulseStream::takeInput()
{
    std::vector<float> &block = m_input.block;
    if (m_inputSamples == block.size())
        m_inputSamples = 0;
    const auto fill = [&](const float *samples, size_t count) {
        const size_t taken = std::min(count, block.size() - m_inputSamples);
        if (samples)
            std::copy_n(samples, taken, block.data() + m_inputSamples);
        else
            std::fill_n(block.data() + m_inputSamples, taken, 0.0f);
        m_inputSamples += taken;
        return taken;
    };
    m_early.erase(m_early.begin(),
                  m_early.begin() + ptrdiff_t(fill(m_early.data(), m_early.size())));
    while (m_inputSamples < block.size()) {
        const void *data = nullptr;
        size_t bytes = 0;
        if (pa_stream_peek(m_input.stream, &data, &bytes) < 0) {
            lose(lastError(m_input.stream));
            return false;
        }
        if (bytes == 0)
            return false;
        // A hole: the server lost what was there.
        m_inputLost = m_inputLost || !data;
        const auto *samples = static_cast<const float *>(data);
        const size_t count = bytes / sizeof(float);
        const size_t taken = fill(samples, count);
        if (samples)
            m_early.insert(m_early.end(), samples + taken, samples + count);
        else
            m_early.insert(m_early.end(), count - taken, 0.0f);
        pa_stream_drop(m_input.stream);
    }
    return true;
}

// The server's room need not be a whole number of blocks, and it begins to play when there is none
// left. True when the last block is handed over and there is room for some of the next.
bool PulseStream::giveOutput()
{
    const size_t room = pa_stream_writable_size(m_output.stream);
    if (room == size_t(-1)) {
        lose(lastError(m_output.stream));
        return false;
    }
    const size_t samples = room / sizeof(float) / m_output.channels * m_output.channels;
    const size_t written = std::min(samples, m_outputLeft);
    return write(written) && m_outputLeft == 0 && written < samples;
}

bool PulseStream::write(size_t samples)
{
    if (samples == 0)
        return true;
    const float *rest = m_output.block.data() + (m_output.block.size() - m_outputLeft);
    if (pa_stream_write(m_output.stream, rest, samples * sizeof(float), nullptr, 0,
                        PA_SEEK_RELATIVE) < 0) {
        lose(lastError(m_output.stream));
        return false;
    }
    m_outputLeft -= samples;
    return true;
}

} // namespace QTovelMixer
