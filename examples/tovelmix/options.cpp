// SPDX-License-Identifier: MIT
#include <tovelmix/options.h>

#include <tovelmix/manual.h>
#include <tovelmix/take.h>
#include <tovelmix/verbs.h>

#include <mixer/meter/channel_layout.h>
#include <mixer/meter/loudness_target.h>
#include <mixer/version.h>

#include <QtCore/QCommandLineParser>

#include <algorithm>
#include <cmath>

namespace tovelmix {

namespace {

constexpr int lowestRate = 10; // Hz
constexpr int highestRate = 192000;
constexpr int leastFrames = 32;
constexpr int mostFrames = 4096;

QString readNumber(const QCommandLineParser &parser, const QCommandLineOption &option, int least,
                   int most, int &number)
{
    if (!parser.isSet(option))
        return {};
    bool isNumber = false;
    number = parser.value(option).toInt(&isNumber);
    if (isNumber && least <= number && number <= most)
        return {};
    return QString("--%1 must be a whole number from %2 to %3, not '%4'")
        .arg(option.names().constFirst())
        .arg(least)
        .arg(most)
        .arg(parser.value(option));
}

QString readSeconds(const QCommandLineParser &parser, Options &options)
{
    if (!parser.isSet(secondsOption))
        return {};
    bool isNumber = false;
    options.seconds = parser.value(secondsOption).toDouble(&isNumber);
    options.devices.seconds = options.seconds;
    if (isNumber && std::isfinite(options.seconds) && options.seconds <= maxSeconds &&
        framesOf(options.seconds) >= 1)
        return {};
    return QString("--seconds must be a length of at least one frame and at most one day, not '%1'")
        .arg(parser.value(secondsOption));
}

QString readBackend(const QCommandLineParser &parser, DeviceOptions &devices)
{
    if (!parser.isSet(backendOption))
        return {};
    const QStringList names = backendNames();
    const QString name = parser.value(backendOption);
    if (!names.contains(name, Qt::CaseInsensitive))
        return QString("unknown backend '%1': %2").arg(name, names.join(", "));
    devices.backend = QTovelMixer::convertStringToBackend(name);
    return {};
}

QString readTarget(const QCommandLineParser &parser, Options &options)
{
    options.target = parser.value(targetOption);
    if (parser.isSet(targetOption) && !QTovelMixer::LoudnessTarget::find(options.target))
        return QString("unknown target '%1': %2").arg(options.target, targetNames().join(", "));
    options.layout = parser.value(layoutOption);
    if (parser.isSet(layoutOption) && !QTovelMixer::ChannelLayout::named(options.layout).isKnown())
        return QString("unknown layout '%1'").arg(options.layout);
    return {};
}

QString readValues(const QCommandLineParser &parser, Options &options)
{
    int rate = 0;
    int frames = int(options.devices.bufferFrames);
    for (const QString &error :
         {readNumber(parser, channelsOption, 1, maxChannels, options.channels),
          readSeconds(parser, options), readBackend(parser, options.devices),
          readTarget(parser, options),
          readNumber(parser, rateOption, lowestRate, highestRate, rate),
          readNumber(parser, bufferOption, leastFrames, mostFrames, frames)}) {
        if (!error.isEmpty())
            return error;
    }
    options.devices.rate = unsigned(rate);
    options.devices.bufferFrames = unsigned(frames);
    options.devices.device = parser.value(deviceOption);
    options.devices.input = parser.value(inputOption);
    options.devices.isVirtual = parser.isSet(virtualOption);
    options.devices.follow = parser.isSet(followOption);
    options.input = parser.value(fileOption);
    options.force = parser.isSet(forceOption);
    options.json = parser.isSet(jsonOption);
    options.watch = parser.isSet(watchOption);
    options.through = parser.isSet(throughOption);
    return {};
}

/// What each command cannot do without.
QString readNeeds(const QCommandLineParser &parser, Options &options)
{
    using Command = Options::Command;
    const bool records =
        options.command == Command::Record || options.command == Command::RecordDevice;
    if (records && parser.value(outputOption).isEmpty())
        return "record needs --out TAKE.wav";
    if (options.command == Command::Record && !parser.isSet(secondsOption))
        return "record needs --seconds S to record from a file";
    const bool readsFile = options.command == Command::Record || options.command == Command::Verify;
    if (readsFile && options.input.isEmpty())
        return QString("%1 needs --in INPUT").arg(records ? "record" : "verify");
    if (options.command == Command::Verify && parser.value(takeOption).isEmpty())
        return "verify needs --take TAKE.wav";
    if (options.command == Command::Play && options.files.isEmpty())
        return "play needs files";
    if (options.command == Command::Measure && options.files.isEmpty())
        return "measure needs files";
    if (options.devices.isVirtual && parser.isSet(backendOption))
        return "--virtual and --backend exclude each other";
    if (options.command == Command::Render && options.session.isEmpty())
        return "render needs one SESSION.json";
    if (options.command == Command::Render && parser.value(outputOption).isEmpty())
        return "render needs --out MIX.wav or --out MIX.flac";
    if (options.command == Command::Render)
        options.mix = parser.value(outputOption);
    options.picture = parser.value(pictureOption);
    if (options.command == Command::Monitor && parser.isSet(deviceOption) && !options.through)
        return "monitor plays on --device with --through only; --input names what it listens to";
    options.take = records ? parser.value(outputOption) : parser.value(takeOption);
    return {};
}

QString readAllowed(const QCommandLineParser &parser, const Verb &verb)
{
    for (const QString &name : parser.optionNames()) {
        const auto isIt = [&name](const QCommandLineOption &option) {
            return option.names().contains(name);
        };
        const QList<QCommandLineOption> &allowed = verb.allowed;
        if (!isIt(verboseOption) && !std::any_of(allowed.begin(), allowed.end(), isIt))
            return QString("%1 has no --%2 (see --help)").arg(verb.name, name);
    }
    return {};
}

QString readCommand(const QCommandLineParser &parser, Options &options)
{
    const QString known = verbNames().join(", ") + " (see --help)";
    const QStringList words = parser.positionalArguments();
    if (words.isEmpty())
        return "no command given: " + known;
    const QList<Verb> &all = verbs();
    const auto verb = std::find_if(all.begin(), all.end(), [&](const Verb &each) {
        const bool fromFile = each.command == Options::Command::Record;
        const bool fromDevice = each.command == Options::Command::RecordDevice;
        return words.constFirst() == each.name &&
               (!(fromFile || fromDevice) || parser.isSet(fileOption) == fromFile);
    });
    if (verb == all.end())
        return QString("unknown command '%1': %2").arg(words.constFirst(), known);
    options.command = verb->command;
    if (verb->command == Options::Command::Play || verb->command == Options::Command::Measure)
        options.files = words.mid(1);
    else if (verb->command == Options::Command::Render && words.size() == 2)
        options.session = words.at(1);
    else if (words.size() > 1)
        return QString("unexpected argument '%1'").arg(words.at(1));
    if (const QString error = readAllowed(parser, *verb); !error.isEmpty())
        return error;
    if (const QString error = readValues(parser, options); !error.isEmpty())
        return error;
    return readNeeds(parser, options);
}

} // namespace

Options parseOptions(const QStringList &arguments)
{
    const QCommandLineOption help(QStringList{"h", "help"});
    const QCommandLineOption version(QStringList{"v", "version"});
    const QCommandLineOption manual("manual");
    const QCommandLineOption completion("completion");
    QCommandLineParser parser;
    parser.addOptions({help, version, manual, completion, verboseOption});
    QStringList known;
    for (const Verb &verb : verbs()) {
        for (const QCommandLineOption &option : verb.allowed) {
            if (!known.contains(option.names().constFirst()))
                parser.addOption(option);
            known += option.names();
        }
    }

    Options options;
    if (!parser.parse(arguments)) {
        options.error = parser.errorText();
    } else if (parser.isSet(help)) {
        options.text = helpText(parser.positionalArguments().value(0));
    } else if (parser.isSet(version)) {
        options.text = QString("tovelmix, %1\n").arg(QtTovelMixerVersionString());
    } else if (parser.isSet(manual)) {
        options.text = manualPage();
    } else if (parser.isSet(completion)) {
        options.text = bashCompletion();
    } else {
        options.verbose = parser.isSet(verboseOption);
        options.error = readCommand(parser, options);
    }
    return options;
}

} // namespace tovelmix
