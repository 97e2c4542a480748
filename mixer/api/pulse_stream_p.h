// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_API_PULSE_STREAM_P_H
#define QTOVELMIXER_MIXER_API_PULSE_STREAM_P_H

#include <mixer/api/pulse_connection_p.h>

#include <string>
#include <vector>

namespace QTovelMixer {

/// What a stream asks and tells. Threads: the stream's audio thread. `begun` and `ended`: that one,
/// or the caller of `start` or `stop`; never two at a time.
class PulseStreamUser
{
public:
    /// One block of interleaved floats, either side null where it has none. Answers 0 to go on, 1
    /// to end after what was played, 2 to end at once.
    virtual int streamBlock(float *output, float *input, unsigned frames, double time,
                            bool inputLost, bool outputDry) = 0;
    virtual void streamBegun() = 0;
    virtual void streamEnded() = 0;
    /// The server, or the device that was used, is gone. Comes once, after `streamEnded`.
    virtual void streamLost(const std::string &text) = 0;

protected:
    ~PulseStreamUser() = default;
};

/// A playback stream, a recording stream, or both in step, through PulseAudio's asynchronous
/// interface. The audio thread is the thread of the connection's loop. Channel k of a block is
/// channel k of the device, whatever its channels are called.
///
/// Both in step: a block is due when the device has delivered one and takes one.
///
/// Threads: one at a time.
class PulseStream
{
public:
    struct Format
    {
        unsigned rate = 0;     ///< Hz
        unsigned frames = 0;   ///< of a block
        unsigned buffers = 0;  ///< blocks that the server keeps, 0: as it likes
        bool realtime = false; ///< asks for real-time scheduling of the audio thread
        int priority = 0;
    };

    PulseStream(PulseStreamUser &user, const Format &format);
    ~PulseStream(); ///< waits for a block under way, and for nothing else
    Q_DISABLE_COPY_MOVE(PulseStream)

    /// These three answer whether it worked; `reason` tells why not.
    bool connect(const std::string &client, int timeout);
    bool openOutput(const std::string &sink, unsigned channels);
    bool openInput(const std::string &source, unsigned channels);
    std::string reason();

    /// False when the server is gone.
    bool start();
    /// `drained`: what was handed over is still played. Waits for a block under way.
    void stop(bool drained);

private:
    struct Side
    {
        pa_stream *stream = nullptr;
        unsigned channels = 0;
        std::vector<float> block;
    };

    using Connect = int (*)(PulseStream &self, const std::string &device, pa_stream *stream,
                            pa_stream_flags_t flags);
    bool openSide(Side &side, pa_context *context, const char *name, const std::string &device,
                  unsigned channels, const pa_channel_map &map, Connect connectTo);
    static int connectOutput(PulseStream &self, const std::string &device, pa_stream *stream,
                             pa_stream_flags_t flags);
    static int connectInput(PulseStream &self, const std::string &device, pa_stream *stream,
                            pa_stream_flags_t flags);

    void schedule();
    void pump();
    bool takeInput();
    bool giveOutput();
    bool write(size_t samples);
    void end(bool drained);
    void lose(const std::string &text);

    PulseStreamUser &m_user;
    const Format m_format;
    Side m_output;
    Side m_input;
    std::string m_reason;
    double m_time = 0.0;        ///< seconds since the start
    size_t m_inputSamples = 0;  ///< of the next block that are there
    size_t m_outputLeft = 0;    ///< samples of the last block that the server had no room for
    std::vector<float> m_early; ///< what came with them of the blocks after it
    bool m_running = false;
    bool m_lost = false;
    bool m_scheduled = false;
    bool m_inputLost = false;
    bool m_outputDry = false;
    PulseConnection m_connection; ///< last: its thread ends first
};

} // namespace QTovelMixer

#endif
