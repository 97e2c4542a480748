// SPDX-License-Identifier: MIT
#ifndef TOVELMIX_VERBS_H
#define TOVELMIX_VERBS_H

#include <tovelmix/options.h>

#include <QtCore/QCommandLineOption>
#include <QtCore/QList>

namespace tovelmix {

extern const QCommandLineOption fileOption;
extern const QCommandLineOption channelsOption;
extern const QCommandLineOption secondsOption;
extern const QCommandLineOption outputOption;
extern const QCommandLineOption pictureOption;
extern const QCommandLineOption takeOption;
extern const QCommandLineOption backendOption;
extern const QCommandLineOption deviceOption;
extern const QCommandLineOption inputOption;
extern const QCommandLineOption rateOption;
extern const QCommandLineOption bufferOption;
extern const QCommandLineOption followOption;
extern const QCommandLineOption jsonOption;
extern const QCommandLineOption forceOption;
extern const QCommandLineOption watchOption;
extern const QCommandLineOption throughOption;
extern const QCommandLineOption virtualOption;
extern const QCommandLineOption verboseOption;
extern const QCommandLineOption targetOption;
extern const QCommandLineOption layoutOption;

/// One use of a command. A command has several when its options exclude each other.
struct Verb
{
    Options::Command command;
    const char *name;
    const char *arguments; ///< without the options that may be left out
    const char *summary;
    QList<QCommandLineOption> allowed;
};

/// All uses, those of one command next to each other.
const QList<Verb> &verbs();

/// The names of the commands, each once.
QStringList verbNames();

/// The names of the loudness targets.
QStringList targetNames();

} // namespace tovelmix

#endif
