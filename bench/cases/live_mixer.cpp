// SPDX-License-Identifier: MIT
#include "cases/live_mixer.h"

#include <QtCore/QThread>

using namespace QTovelMixer;

namespace Bench {

LiveMixer::LiveMixer(QTovelMixerApiVirtual::Pacing pacing, unsigned frames, int sources,
                     int sourceRate)
    : api(new QTovelMixerApiVirtual(pacing, frames)), engine(api)
{
    api->plug({.name = QStringLiteral("bench"), .outputChannels = 2, .sampleRates = {48000}});
    api->setOutputHandler([this](const float *, unsigned count, unsigned, quint64) {
        m_delivered.fetch_add(count, std::memory_order_relaxed);
    });
    api->updateDeviceList();
    engine.activate();
    for (int i = 0; i < sources; ++i)
        engine.addSource(new NoiseSource(&engine, sourceRate), 0.02f);
}

LiveMixer::~LiveMixer()
{
    engine.deactivate(UserStopAction);
}

void LiveMixer::waitFor(qint64 frames) const
{
    while (delivered() < frames)
        QThread::msleep(1);
}

} // namespace Bench
