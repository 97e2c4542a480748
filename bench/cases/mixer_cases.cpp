// SPDX-License-Identifier: MIT
// The whole callback with sources that play, beside the same work written down plainly, another
// mixer, and the mere reading of what is played.
#include "cases/cases.h"
#include "cases/desk.h"
#include "peers/openal.h"
#include "peers/plain.h"

#include <algorithm>
#include <cstring>

using namespace QTovelMixer;

namespace Bench {

namespace {

const QString section = QStringLiteral("A. Whole mixer");
const QString plain = QStringLiteral("plain loops");
const QString reading = QStringLiteral("reading the clips");
const QString openAl = QStringLiteral("OpenAL Soft");

constexpr unsigned hot = 2048;
constexpr unsigned halfMebibyte = 65536;
constexpr unsigned twoMebibytes = 262144;

/// The clips of a desk once more, mixed without any of its means.
struct PlainMixer
{
    std::vector<const float *> clips;
    std::vector<std::vector<float>> rows;
    std::vector<std::vector<float>> outputs;
    std::vector<const float *> in;
    std::vector<float *> to;
    std::vector<float> out;
    std::vector<float> ring;
    std::unique_ptr<GainMatrix> matrix = std::make_unique<GainMatrix>();
    unsigned clipFrames;
    unsigned position = 0;
    size_t ringPosition = 0;

    PlainMixer(const Desk &desk, unsigned frames)
        : outputs(2, std::vector<float>(blockFrames)), out(size_t(blockFrames) * 2),
          ring(size_t(blockFrames) * 2 * 128), clipFrames(frames)
    {
        for (const auto &source : desk.sources)
            clips.push_back(source->clip());
        rows.assign(clips.size() * 2, std::vector<float>(blockFrames));
        for (const std::vector<float> &row : rows)
            in.push_back(row.data());
        for (std::vector<float> &row : outputs)
            to.push_back(row.data());
        for (unsigned row = 0; row < rows.size(); ++row)
            matrix->setCell(row, row % 2, 0.5f);
    }

    void mix()
    {
        for (size_t i = 0; i < clips.size(); ++i) {
            float *const planes[] = {rows[2 * i].data(), rows[2 * i + 1].data()};
            Plain::split(clips[i] + size_t(position) * 2, planes, 2, int(blockFrames), 0.5f);
        }
        position = (position + blockFrames) % clipFrames;
        Plain::mix(matrix->gain, matrix->enable, in.data(), int(in.size()), to.data(), 2,
                   int(blockFrames));
        const float *const planes[] = {outputs[0].data(), outputs[1].data()};
        Plain::merge(planes, out.data(), 2, int(blockFrames));
        Plain::scale(out.data(), 0.8f, int(out.size()));
        std::memcpy(ring.data() + ringPosition, out.data(), out.size() * sizeof(float));
        ringPosition = (ringPosition + out.size()) % ring.size();
    }

    void read()
    {
        for (const float *clip : clips)
            Limits::read(clip + size_t(position) * 2, blockFrames * 2);
        position = (position + blockFrames) % clipFrames;
    }
};

Case playing(int sources, unsigned clipFrames, const QString &name)
{
    const auto desk = std::make_shared<Desk>(sources, clipFrames);
    const auto plainly = std::make_shared<PlainMixer>(*desk, clipFrames);
    const auto reader = std::make_shared<PlainMixer>(*desk, clipFrames);
    Case result(section, name);
    result.per(QStringLiteral("source and block"), sources);
    result.ours([desk] { desk->mix(); });
    result.add(plain, [plainly] { plainly->mix(); });
    result.add(reading, [reader] { reader->read(); });
    addOpenAl(result, plainly->clips, clipFrames, blockFrames);
    return result;
}

} // namespace

// Of the mixers that are not here, what they took beside OpenAL Soft on one machine is known.
void addMixerCases(Suite &suite)
{
    suite.add(section, [] {
        return playing(2, hot, QStringLiteral("2 stereo sources, clips in the cache"));
    });
    suite.add(section, [] {
        return playing(32, hot, QStringLiteral("32 stereo sources, clips in the cache"))
            .mustBeat(openAl, 4.0)
            .mustBeat(openAl, 3.0 * 451 / 307, QStringLiteral("the literal form"))
            .mustBeat(openAl, 1.6 * 451 / 148, QStringLiteral("miniaudio's engine"))
            .mustBeat(openAl, 1.35 * 451 / 128, QStringLiteral("miniaudio's nodes"))
            .mustBeat(openAl, 3.5 * 451 / 376, QStringLiteral("SoLoud"))
            .mustCountAtMost(1000);
    });
    suite.add(section, [] {
        return playing(63, hot, QStringLiteral("63 stereo sources, clips in the cache"));
    });
    suite.add(section, [] {
        return playing(32, halfMebibyte, QStringLiteral("32 stereo sources, clips of 512 KiB"));
    });
    suite.add(section, [] {
        return playing(32, twoMebibytes, QStringLiteral("32 stereo sources, clips of 2 MiB"))
            .mustBeat(openAl, 1.25 * 637 / 347, QStringLiteral("miniaudio's engine"))
            .mustBeat(reading, 0.45);
    });
    suite.add(section, [] {
        return playing(63, twoMebibytes, QStringLiteral("63 stereo sources, clips of 2 MiB"));
    });
}

} // namespace Bench
