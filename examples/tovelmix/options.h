// SPDX-License-Identifier: MIT
#ifndef TOVELMIX_OPTIONS_H
#define TOVELMIX_OPTIONS_H

#include <tovelmix/device_choice.h>

#include <QtCore/QString>
#include <QtCore/QStringList>

namespace tovelmix {

/// What the user typed, checked as far as that goes without touching a file or a device.
struct Options
{
    enum class Command {
        Devices,
        Play,
        Record,
        RecordDevice,
        Render,
        Measure,
        Monitor,
        Verify,
        ShowText
    };

    Command command = Command::ShowText;
    QString input;
    int channels = 0; ///< 0: as the audio file says
    QString take;     ///< written by record, read by verify
    double seconds = 0.0;
    QStringList files; ///< for play and measure
    QString target;    ///< for measure, a name that the library knows; empty for none
    QString layout;    ///< for measure, likewise
    QString session;   ///< for render
    QString mix;       ///< written by render
    QString picture;   ///< written by render, empty for none
    DeviceOptions devices;
    bool force = false; ///< render may replace inputs and older recordings
    bool json = false;
    bool watch = false;
    bool through = false;
    bool verbose = false;
    QString text;  ///< help or version, for ShowText
    QString error; ///< one line; empty when everything is in order
};

Options parseOptions(const QStringList &arguments);

} // namespace tovelmix

#endif
