// SPDX-License-Identifier: MIT
#include <tovelmix/options.h>

#include <tovelmix/take.h>

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

const QCommandLineOption fileOption("in",
                                    "File to record from: raw signed 16-bit samples at "
                                    "44100 Hz (.raw, .pcm, .s16), or an audio file.",
                                    "INPUT");
const QCommandLineOption channelsOption("channels", "Channels of a raw INPUT, 1 to 128.", "N");
const QCommandLineOption secondsOption("seconds", "Ends after so many seconds.", "S");
const QCommandLineOption outputOption("out", "File that record or render writes.", "FILE");
const QCommandLineOption
    pictureOption("picture", "PNG with the waveform, true peaks and loudness of a mix.", "MIX.png");
const QCommandLineOption takeOption("take", "WAV file that verify compares.", "TAKE.wav");
const QCommandLineOption backendOption("backend",
                                       "Sound system: " + backendNames().join(", ") + ".", "NAME");
const QCommandLineOption deviceOption("device",
                                      "Device that plays, by its name or its identity (devices "
                                      "--json); the default one without this.",
                                      "NAME");
const QCommandLineOption inputOption("input", "Device that records, likewise.", "NAME");
const QCommandLineOption rateOption("rate", "Sample rate of the devices, 10 to 192000.", "HZ");
const QCommandLineOption bufferOption("buffer", "Frames of one block, 32 to 4096.", "FRAMES");
const QCommandLineOption followOption("follow",
                                      "After a device was lost, goes on as soon as it, or another "
                                      "default one, is there.");
const QCommandLineOption jsonOption("json",
                                    "Prints the devices, or the figures of a mix, as JSON.");
const QCommandLineOption forceOption("force",
                                     "Lets render replace its inputs and older recordings.");
const QCommandLineOption watchOption("watch", "Goes on printing what changes.");
const QCommandLineOption throughOption("through", "Plays the input on the output device.");
const QCommandLineOption virtualOption("virtual",
                                       "Plays without hardware, in real time, for nobody to hear.");
const QCommandLineOption verboseOption("verbose", "Show the library's messages on stderr.");

struct Verb
{
    Options::Command command;
    const char *name;
    QList<QCommandLineOption> allowed;
};

const QList<QCommandLineOption> &deviceOptions()
{
    static const QList<QCommandLineOption> options = {backendOption, secondsOption, followOption,
                                                      rateOption, bufferOption};
    return options;
}

QList<Verb> verbs()
{
    using Command = Options::Command;
    return {
        {Command::Devices, "devices", {jsonOption, watchOption, backendOption, secondsOption}},
        {Command::Play, "play", deviceOptions() + QList{deviceOption, virtualOption}},
        {Command::RecordDevice, "record", deviceOptions() + QList{inputOption, outputOption}},
        {Command::Record, "record", {fileOption, channelsOption, secondsOption, outputOption}},
        {Command::Render, "render", {outputOption, jsonOption, pictureOption, forceOption}},
        {Command::Monitor, "monitor",
         deviceOptions() + QList{deviceOption, inputOption, throughOption}},
        {Command::Verify, "verify", {fileOption, channelsOption, takeOption}},
    };
}

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

QString readValues(const QCommandLineParser &parser, Options &options)
{
    int rate = 0;
    int frames = int(options.devices.bufferFrames);
    for (const QString &error :
         {readNumber(parser, channelsOption, 1, maxChannels, options.channels),
          readSeconds(parser, options), readBackend(parser, options.devices),
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
    const QString known = "devices, play, record, render, monitor or verify (see --help)";
    const QStringList words = parser.positionalArguments();
    if (words.isEmpty())
        return "no command given: " + known;
    const QList<Verb> all = verbs();
    const auto verb = std::find_if(all.begin(), all.end(), [&](const Verb &each) {
        const bool fromFile = each.command == Options::Command::Record;
        const bool fromDevice = each.command == Options::Command::RecordDevice;
        return words.constFirst() == each.name &&
               (!(fromFile || fromDevice) || parser.isSet(fileOption) == fromFile);
    });
    if (verb == all.end())
        return QString("unknown command '%1': %2").arg(words.constFirst(), known);
    options.command = verb->command;
    if (verb->command == Options::Command::Play)
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
    QCommandLineParser parser;
    parser.setApplicationDescription(
        "Plays and records through the mixer, on real devices or from a file.\n\n"
        "  tovelmix devices [--json] [--watch]           lists the devices\n"
        "  tovelmix play FILES…                          plays audio files side by side\n"
        "  tovelmix record --out TAKE.wav                records a device\n"
        "  tovelmix record --in INPUT --seconds S --out TAKE.wav\n"
        "                                                records a file, played in a loop\n"
        "  tovelmix render SESSION.json --out MIX.wav|.flac [--json] [--picture MIX.png] "
        "[--force]\n"
        "                                                mixes files into one, without a device\n"
        "  tovelmix monitor [--through]                  shows what a device hears\n"
        "  tovelmix verify --in INPUT --take TAKE.wav    compares a take with its file\n\n"
        "It ends with 0 when all went well, 1 after a failure, 2 when it was called wrongly, and\n"
        "3 when there is no sound server or no device.");
    parser.addPositionalArgument("command", "devices, play, record, render, monitor or verify",
                                 "devices|play|record|render|monitor|verify");
    parser.addPositionalArgument("files", "Audio files for play, a session for render.",
                                 "[FILES…]");
    parser.addOptions({fileOption, channelsOption, secondsOption, outputOption, takeOption,
                       backendOption, deviceOption, inputOption, rateOption, bufferOption,
                       followOption, forceOption, jsonOption, pictureOption, watchOption,
                       throughOption, virtualOption, verboseOption});
    const QCommandLineOption help = parser.addHelpOption();
    const QCommandLineOption version = parser.addVersionOption();

    Options options;
    if (!parser.parse(arguments)) {
        options.error = parser.errorText();
    } else if (parser.isSet(help)) {
        options.text = parser.helpText();
    } else if (parser.isSet(version)) {
        options.text = QString("tovelmix, %1\n").arg(QtTovelMixerVersionString());
    } else {
        options.verbose = parser.isSet(verboseOption);
        options.error = readCommand(parser, options);
    }
    return options;
}

} // namespace tovelmix
