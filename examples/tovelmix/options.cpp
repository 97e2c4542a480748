// SPDX-License-Identifier: MIT
#include <tovelmix/options.h>

#include <tovelmix/take.h>

#include <mixer/version.h>

#include <QtCore/QCommandLineParser>

#include <cmath>

namespace tovelmix {

namespace {

constexpr double maxSeconds = 24.0 * 3600.0;

const QCommandLineOption inputOption("in",
                                     "File to record from: raw signed 16-bit samples at "
                                     "44100 Hz (.raw, .pcm, .s16), or an audio file.",
                                     "INPUT");
const QCommandLineOption channelsOption("channels", "Channels of a raw INPUT, 1 to 128.", "N");
const QCommandLineOption secondsOption("seconds", "Length of the take in seconds.", "S");
const QCommandLineOption outputOption("out", "WAV file that record writes.", "TAKE.wav");
const QCommandLineOption takeOption("take", "WAV file that verify compares.", "TAKE.wav");
const QCommandLineOption verboseOption("verbose", "Show the library's messages on stderr.");

QString readChannels(const QCommandLineParser &parser, Options &options)
{
    if (!parser.isSet(channelsOption))
        return {};
    bool isNumber = false;
    options.channels = parser.value(channelsOption).toInt(&isNumber);
    if (isNumber && 1 <= options.channels && options.channels <= maxChannels)
        return {};
    return QString("--channels must be a whole number from 1 to %1, not '%2'")
        .arg(maxChannels)
        .arg(parser.value(channelsOption));
}

QString readSeconds(const QCommandLineParser &parser, Options &options)
{
    if (!parser.isSet(secondsOption))
        return "record needs --seconds S";
    bool isNumber = false;
    options.seconds = parser.value(secondsOption).toDouble(&isNumber);
    if (isNumber && std::isfinite(options.seconds) && options.seconds <= maxSeconds &&
        framesOf(options.seconds) >= 1)
        return {};
    return QString("--seconds must be a length of at least one frame and at most one day, not '%1'")
        .arg(parser.value(secondsOption));
}

QString readRecord(const QCommandLineParser &parser, Options &options)
{
    if (parser.isSet(takeOption))
        return "record writes to --out; --take belongs to verify";
    if (!parser.isSet(outputOption) || parser.value(outputOption).isEmpty())
        return "record needs --out TAKE.wav";
    options.command = Options::Command::Record;
    options.take = parser.value(outputOption);
    return readSeconds(parser, options);
}

QString readVerify(const QCommandLineParser &parser, Options &options)
{
    if (parser.isSet(outputOption) || parser.isSet(secondsOption))
        return "verify compares --in with --take; --out and --seconds belong to record";
    if (!parser.isSet(takeOption) || parser.value(takeOption).isEmpty())
        return "verify needs --take TAKE.wav";
    options.command = Options::Command::Verify;
    options.take = parser.value(takeOption);
    return {};
}

QString readCommand(const QCommandLineParser &parser, Options &options)
{
    const QStringList words = parser.positionalArguments();
    if (words.isEmpty())
        return "no command given: record or verify (see --help)";
    if (words.size() > 1)
        return QString("unexpected argument '%1'").arg(words.at(1));
    if (words.first() != "record" && words.first() != "verify")
        return QString("unknown command '%1': record or verify (see --help)").arg(words.first());
    if (!parser.isSet(inputOption) || parser.value(inputOption).isEmpty())
        return words.first() + " needs --in INPUT";
    options.input = parser.value(inputOption);
    if (const QString error = readChannels(parser, options); !error.isEmpty())
        return error;
    return words.first() == "record" ? readRecord(parser, options) : readVerify(parser, options);
}

} // namespace

Options parseOptions(const QStringList &arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription("Records a file, played in a loop, through the mixer.");
    parser.addPositionalArgument("command", "record or verify", "record|verify");
    parser.addOptions(
        {inputOption, channelsOption, secondsOption, outputOption, takeOption, verboseOption});
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
