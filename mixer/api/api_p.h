// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_API_API_P_H
#define QTOVELMIXER_MIXER_API_API_P_H

#include <base/hidden_p.h>
#include <mixer/api/api.h>

#include <QtCore/QElapsedTimer>

#include <atomic>

namespace QTovelMixer {

struct QTOVELMIXER_HIDDEN Api::Data
{
    QString name;
    Backend backend;
    std::atomic<Engine *> engine{nullptr}; ///< the audio thread reads it
    std::atomic<unsigned> bufferFrames;    ///< workers and the audio thread read these two
    std::atomic<unsigned> sampleRate{48000};
    Device *currentInput = nullptr;
    Device *currentOutput = nullptr;
    bool listChanged = true;
    bool changedSinceOpen = false;
    bool firstUpdate = true;
    QElapsedTimer lastUpdate;
    qint64 clockShift = 0; ///< ms that tests let pass
    std::atomic<int> failureReported{0};
    std::atomic<unsigned> openings{0};      ///< successful calls of openApi
    std::atomic<unsigned> failedOpening{0}; ///< the number of openings at the last failure
    QList<Device *> previousDevices;
    QList<Device *> devices;
    QList<Device *> knownDevices; ///< owned

    void setCurrent(Device *output, Device *input);
    /// The backend may update again this long after an update.
    bool updateAllowed(qint64 elapsed) const;
};

/// The tests' way to the private record.
struct ApiAccess
{
    static Api::Data &data(Api &api) { return *api.d; }
};

} // namespace QTovelMixer

#endif
