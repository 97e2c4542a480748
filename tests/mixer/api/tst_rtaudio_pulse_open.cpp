// SPDX-License-Identifier: MIT
// Streams that open by half.
#include "rtaudio_fixture.h"

#include <support/log_capture.h>

#include <QtCore/QDeadlineTimer>

#include <pulse/pulseaudio.h>

using QTovelMixer::Pulse;

namespace {

constexpr int mostReaders = 256; // of one source, by the server's own limit

/// Another client, which records from a source as often as the server lets it.
class Readers
{
public:
    explicit Readers(const char *source)
        : m_loop(pa_mainloop_new()),
          m_context(pa_context_new(pa_mainloop_get_api(m_loop), "readers"))
    {
        pa_context_connect(m_context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr);
        turnUntil([this] { return pa_context_get_state(m_context) == PA_CONTEXT_READY; });
        const pa_sample_spec format = {PA_SAMPLE_U8, 48000, 2};
        for (int reader = 0; reader < mostReaders; ++reader) {
            pa_stream *stream = pa_stream_new(m_context, "reader", &format, nullptr);
            if (!stream)
                break;
            pa_stream_connect_record(stream, source, nullptr, PA_STREAM_START_CORKED);
            m_streams.push_back(stream);
        }
        turnUntil([this] { return count() == mostReaders; });
    }
    ~Readers()
    {
        for (pa_stream *stream : m_streams)
            pa_stream_unref(stream);
        pa_context_disconnect(m_context);
        pa_context_unref(m_context);
        pa_mainloop_free(m_loop);
    }
    Q_DISABLE_COPY_MOVE(Readers)

    int count() const
    {
        return int(std::count_if(m_streams.begin(), m_streams.end(), [](pa_stream *stream) {
            return pa_stream_get_state(stream) == PA_STREAM_READY;
        }));
    }

private:
    template <typename Condition>
    void turnUntil(Condition condition)
    {
        const QDeadlineTimer deadline(20000);
        while (!condition() && !deadline.hasExpired()) {
            if (pa_mainloop_prepare(m_loop, 100000) < 0 || pa_mainloop_poll(m_loop) < 0 ||
                pa_mainloop_dispatch(m_loop) < 0)
                return;
        }
    }

    pa_mainloop *m_loop;
    pa_context *m_context;
    std::vector<pa_stream *> m_streams;
};

} // namespace

class tst_RtAudioPulseOpen : public QObject
{
    Q_OBJECT

private slots:
    void activation_fallsBack_whenTheInputFails();
};

void tst_RtAudioPulseOpen::activation_fallsBack_whenTheInputFails()
{
    PulseServer server(PulseServer::twoSinks());
    QVERIFY2(server.start(), qPrintable(server.report()));
    QVERIFY(server.setDefaultSink(QStringLiteral("null1")));
    QVERIFY(server.setDefaultSource(QStringLiteral("null2.monitor")));
    RtAudioSession session(Pulse, RtAudioSession::Duplex);
    QVERIFY(session.openDefaults());
    QVERIFY(session.play());
    QVERIFY(session.rest());
    const Readers readers("null2.monitor");
    QCOMPARE(readers.count(), mostReaders);
    const Resources before = Resources::now();
    TimedApplication::longest = 0;
    for (int round = 0; round < 5; ++round) {
        LogCapture log(LogCapture::KeepAndPass);
        QVERIFY(session.openDefaults());
        QCOMPARE(session.engine->numOutputChannels(), 2u);
        QCOMPARE(session.engine->numInputChannels(), 0u);
        QVERIFY2(log.contains(QStringLiteral("QTovelMixerApiRtAudio::open: RtApiPulse: cannot open "
                                             "the input \"Monitor of NULL2\": Too large")),
                 qPrintable(log.texts().join(u'\n')));
        QVERIFY(session.play());
        QVERIFY(session.rest());
    }
    qInfo("OPEN | the input fails, 5 times | held %lld ms",
          static_cast<long long>(TimedApplication::longest));
    QVERIFY2(TimedApplication::longest <= 300,
             qPrintable(QStringLiteral("held for %1 ms").arg(TimedApplication::longest)));
    QVERIFY(session.wait([&] { return Resources::now().within(before); }));
    QCOMPARE(session.failures, 0);
}

RTAUDIO_TEST_MAIN(tst_RtAudioPulseOpen)
#include "tst_rtaudio_pulse_open.moc"
