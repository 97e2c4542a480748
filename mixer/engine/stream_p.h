// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_ENGINE_STREAM_P_H
#define QTOVELMIXER_MIXER_ENGINE_STREAM_P_H

#include <mixer/api/api.h>
#include <mixer/engine.h>

#include <QtCore/QElapsedTimer>
#include <QtCore/QPointer>
#include <QtCore/QTimer>

namespace QTovelMixer {

/// The device stream: who uses it, which of all that were opened it is, and the watchdog over its
/// blocks. Threads: main.
struct EngineStream
{
    EngineStream(Engine *owner, Api *backend) : api(backend), watchdogTimer(new QTimer(owner)) {}

    bool apiRunning() const { return api && api->isRunning(); }
    bool apiOpen() const { return api && api->isOpen(); }
    bool openMixerApi(Device *output, Device *input, unsigned rate);
    /// Stops the stream, closes it and deletes the meters that hang on it.
    void closeDevice();
    void closeMixerApi();

    // Users. Each call of the first needs one of the second before the stream stops.
    void startMixerApi();
    void stopMixerApi();
    /// Keeps the stream alive for every user, also after it was reopened under them.
    void raiseApiRefs(int users);
    /// Starts the open stream if somebody needs it.
    void startStreamForUsers();
    /// Takes one use back, later if the mix is being changed: a block that waits for the end of the
    /// change could not end before.
    void releaseStream();
    /// Does what `releaseStream` could not queue for want of memory.
    void releaseOwed();
    /// Has the loss of the stream told as a failure of the device, from the event loop: until then
    /// another device may be opened.
    void reportLostStream();

    void startWatchdog();
    void stopWatchdog() { watchdogTimer->stop(); }
    /// The server may not have asked for blocks yet, and be well.
    bool mayStillRest() const;

    QPointer<Api> api;
    bool isBackendTaken = false;   ///< by another engine
    bool streaming = false;        ///< the host wants a stream without users
    int apiRefs = 0;               ///< users of the running stream
    unsigned streamGeneration = 0; ///< raised by every open and close, so that late calls see it
    bool isLossTold = false;       ///< the host knows that the device opened last is lost
    int owedStops = 0;
    unsigned owedGeneration = 0; ///< of the stream that they are owed to
    QTimer *watchdogTimer;
    QElapsedTimer watchdogClock; ///< since its last tick
    QElapsedTimer streamClock;   ///< since the stream was started
    quint64 lastSeenCallbackCount = 0;
    bool isStallTold = false; ///< of the stall at that count
};

} // namespace QTovelMixer

#endif
