// SPDX-License-Identifier: MIT
// One channel from rate to rate in chunks of 4096 frames, as the sources' workers convert them.
#include "cases/cases.h"
#include "peers/rematrix.h"

#include <dsp/resample.h>

#include <hwy/targets.h>
#include <samplerate.h>
#include <soxr.h>

#include <cmath>
#include <memory>
#include <random>

#ifdef QTOVELMIXER_BENCH_SPEEX
#include <speex/speex_resampler.h>
#endif
#ifdef QTOVELMIXER_BENCH_ZITA
#include <zita-resampler/resampler.h>
#endif

namespace Bench {

namespace {

const QString section = QStringLiteral("D. Resampling");
const QString soxrHq = QStringLiteral("soxr HQ");
const QString zita48 = QStringLiteral("zita-resampler 48");

constexpr int chunk = 4096;

struct Work
{
    int inRate;
    int outRate;
    std::vector<float> in = std::vector<float>(chunk);
    std::vector<float> out;

    Work(int from, int to)
        : inRate(from), outRate(to), out(size_t(double(to) / from * chunk * 1.5) + 64)
    {
        std::mt19937 random(1);
        std::uniform_real_distribution<float> value(-0.9f, 0.9f);
        for (float &sample : in)
            sample = value(random);
    }
    double ratio() const { return double(outRate) / inRate; }
};

using WorkPointer = std::shared_ptr<Work>;

void addOurs(Case &to, const WorkPointer &work)
{
    const std::shared_ptr<DSPB_Resampler> own(
        DSPB_ResampleInit(work->inRate, work->outRate, "none"),
        [](DSPB_Resampler *r) { DSPB_ResampleDestroy(r); });
    to.per(QStringLiteral("input sample"), chunk).ours([work, own] {
        keep(DSPB_Resample(own.get(), work->in.data(), work->out.data(), chunk));
    });
}

void addSoxr(Case &to, const WorkPointer &work)
{
    const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_HQ, 0);
    const std::shared_ptr<std::remove_pointer_t<soxr_t>> soxr(
        soxr_create(work->inRate, work->outRate, 1, nullptr, nullptr, &quality, nullptr),
        soxr_delete);
    to.add(soxrHq, [work, soxr] {
        size_t written = 0;
        soxr_process(soxr.get(), work->in.data(), chunk, nullptr, work->out.data(),
                     work->out.size(), &written);
    });
}

void addSampleRate(Case &to, const WorkPointer &work)
{
    int error = 0;
    const std::shared_ptr<SRC_STATE> state(src_new(SRC_SINC_FASTEST, 1, &error),
                                           [](SRC_STATE *s) { src_delete(s); });
    to.add(QStringLiteral("libsamplerate fastest"), [work, state] {
        SRC_DATA data{};
        data.data_in = work->in.data();
        data.data_out = work->out.data();
        data.input_frames = chunk;
        data.output_frames = long(work->out.size());
        data.src_ratio = work->ratio();
        src_process(state.get(), &data);
    });
}

void addZita([[maybe_unused]] Case &to, [[maybe_unused]] const WorkPointer &work)
{
#ifdef QTOVELMIXER_BENCH_ZITA
    const auto zita = std::make_shared<Resampler>();
    if (zita->setup(unsigned(work->inRate), unsigned(work->outRate), 1, 48) != 0)
        return;
    to.add(zita48, [work, zita] {
        zita->inp_count = chunk;
        zita->inp_data = work->in.data();
        zita->out_count = unsigned(work->out.size());
        zita->out_data = work->out.data();
        zita->process();
    });
#endif
}

void addSpeex([[maybe_unused]] Case &to, [[maybe_unused]] const WorkPointer &work)
{
#ifdef QTOVELMIXER_BENCH_SPEEX
    int error = 0;
    const std::shared_ptr<SpeexResamplerState> state(
        speex_resampler_init(1, unsigned(work->inRate), unsigned(work->outRate), 5, &error),
        speex_resampler_destroy);
    if (!state)
        return;
    to.add(QStringLiteral("speexdsp 5"), [work, state] {
        spx_uint32_t taken = chunk;
        spx_uint32_t written = spx_uint32_t(work->out.size());
        speex_resampler_process_float(state.get(), 0, work->in.data(), &taken, work->out.data(),
                                      &written);
    });
#endif
}

Case convert(int from, int to)
{
    const auto work = std::make_shared<Work>(from, to);
    Case result(section, QStringLiteral("%1 → %2 Hz").arg(from).arg(to));
    addOurs(result, work);
    addSoxr(result, work);
    addZita(result, work);
    addSwrResampler(result, from, to, work->in.data(), work->out.data(), chunk,
                    int(work->out.size()));
    addSampleRate(result, work);
    addSpeex(result, work);
    return result;
}

#ifdef __x86_64__

/// On the oldest vectors that the library has code for.
Case convertOnBaseline(int from, int to)
{
    const auto work = std::make_shared<Work>(from, to);
    Case result(section, QStringLiteral("%1 → %2 Hz, 128-bit vectors").arg(from).arg(to));
    addOurs(result, work);
    addSoxr(result, work);
    result.target = HWY_SSSE3;
    return result.mustBeat(soxrHq, 0.40);
}

#endif

/// What is left of a sine after the best fitting sine is taken away.
struct Fit
{
    double signal = 0.0; ///< amplitude
    double noise = 0.0;  ///< effective value of the rest

    double ratio() const
    {
        return 20.0 * std::log10(signal / std::sqrt(2.0) / std::max(noise, 1e-30));
    }
};

Fit fitSine(const std::vector<float> &x, size_t first, double step)
{
    // Least squares in the two amplitudes of sine and cosine.
    double ss = 0.0, cc = 0.0, sc = 0.0, xs = 0.0, xc = 0.0;
    for (size_t i = first; i < x.size(); ++i) {
        const double s = std::sin(step * double(i));
        const double c = std::cos(step * double(i));
        ss += s * s;
        cc += c * c;
        sc += s * c;
        xs += double(x[i]) * s;
        xc += double(x[i]) * c;
    }
    const double determinant = ss * cc - sc * sc;
    const double a = (xs * cc - xc * sc) / determinant;
    const double b = (xc * ss - xs * sc) / determinant;
    double rest = 0.0;
    for (size_t i = first; i < x.size(); ++i) {
        const double error =
            double(x[i]) - a * std::sin(step * double(i)) - b * std::cos(step * double(i));
        rest += error * error;
    }
    return {std::hypot(a, b), std::sqrt(rest / double(x.size() - first))};
}

Fit convertSine(int inRate, int outRate, double frequency)
{
    constexpr double pi = 3.14159265358979323846;
    constexpr int chunks = 40;
    DSPB_Resampler *resampler = DSPB_ResampleInit(inRate, outRate, "none");
    std::vector<float> in(chunk);
    std::vector<float> room(size_t(double(outRate) / inRate * chunk * 1.5) + 64);
    std::vector<float> out;
    for (int n = 0; n < chunks; ++n) {
        for (int i = 0; i < chunk; ++i) {
            const double t = double(n) * chunk + i;
            in[size_t(i)] = float(0.5 * std::sin(2.0 * pi * frequency / inRate * t));
        }
        const int written = DSPB_Resample(resampler, in.data(), room.data(), chunk);
        out.insert(out.end(), room.begin(), room.begin() + written);
    }
    DSPB_ResampleDestroy(resampler);
    return fitSine(out, 4096, 2.0 * pi * frequency / outRate);
}

std::vector<Figure> quality()
{
    std::vector<Figure> figures;
    constexpr int pairs[][2] = {{44100, 48000}, {48000, 44100}};
    for (const auto &pair : pairs) {
        const QString name = QStringLiteral("%1 → %2 Hz, ").arg(pair[0]).arg(pair[1]);
        const QString dB = QStringLiteral("dB");
        figures.push_back({section, name + QStringLiteral("signal to noise at 1 kHz"),
                           convertSine(pair[0], pair[1], 1000.0).ratio(), dB, 120.0, true});
        figures.push_back({section, name + QStringLiteral("signal to noise at 15 kHz"),
                           convertSine(pair[0], pair[1], 15000.0).ratio(), dB, 120.0, true});
        const double lower = std::min(pair[0], pair[1]);
        const double gain = convertSine(pair[0], pair[1], 0.45 * lower).signal / 0.5;
        figures.push_back({section, name + QStringLiteral("loss at 0.45 of the lower rate"),
                           std::abs(20.0 * std::log10(gain)), dB, 0.1, false});
    }
    return figures;
}

} // namespace

void addResampleCases(Suite &suite)
{
    constexpr int near[][2] = {{44100, 48000}, {48000, 44100}};
    constexpr int far[][2] = {{96000, 48000}, {8000, 192000}};
    for (const auto &pair : near) {
        suite.add(section, [from = pair[0], to = pair[1]] {
            Case result = convert(from, to).mustBeat(soxrHq, 1.0).mustBeat(zita48, 3.5);
            return from < to ? result.mustCountAtMost(60.0) : result;
        });
    }
    for (const auto &pair : far) {
        suite.add(section, [from = pair[0], to = pair[1]] {
            return convert(from, to).mustBeat(soxrHq, 0.40);
        });
    }
#ifdef __x86_64__
    for (const auto &pair : near) {
        suite.add(section, [from = pair[0], to = pair[1]] { return convertOnBaseline(from, to); });
    }
#endif
    suite.addFigures(section, quality);
}

} // namespace Bench
