// SPDX-License-Identifier: MIT
#include <tovelmix/verbs.h>

#include <mixer/meter/loudness_target.h>

namespace tovelmix {

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
const QCommandLineOption jsonOption("json", "Prints devices or figures as JSON.");
const QCommandLineOption forceOption("force",
                                     "Lets render replace its inputs and older recordings.");
const QCommandLineOption watchOption("watch", "Goes on printing what changes.");
const QCommandLineOption throughOption("through", "Plays the input on the output device.");
const QCommandLineOption virtualOption("virtual",
                                       "Plays without hardware, in real time, for nobody to hear.");
const QCommandLineOption verboseOption("verbose", "Show the library's messages on stderr.");

const QCommandLineOption targetOption("target",
                                      "Says whether files meet a loudness target, and ends with 4 "
                                      "when one does not: " +
                                          targetNames().join(", ") + ".",
                                      "NAME");
const QCommandLineOption layoutOption(
    "layout",
    "What the channels are: stereo, dual mono, 5.1, 7.1, 5.1.4, 7.1.4, 22.2 …; without "
    "it their count tells.",
    "NAME");

const QList<Verb> &verbs()
{
    using Command = Options::Command;
    static const QList<QCommandLineOption> device = {backendOption, secondsOption, followOption,
                                                     rateOption, bufferOption};
    static const QList<Verb> all = {
        {Command::Devices,
         "devices",
         "",
         "Lists the devices.",
         {jsonOption, watchOption, backendOption, secondsOption}},
        {Command::Play, "play", "FILES...", "Plays audio files side by side.",
         device + QList{deviceOption, virtualOption}},
        {Command::RecordDevice, "record", "--out TAKE.wav", "Records a device.",
         device + QList{inputOption, outputOption}},
        {Command::Record,
         "record",
         "--in INPUT --seconds S --out TAKE.wav",
         "Records a file, played in a loop, without a device.",
         {fileOption, channelsOption, secondsOption, outputOption}},
        {Command::Render,
         "render",
         "SESSION.json --out MIX.wav|MIX.flac",
         "Mixes the files of a session into one, without a device.",
         {outputOption, jsonOption, pictureOption, forceOption}},
        {Command::Measure, "measure", "FILES...", "Measures the loudness and peaks of audio files.",
         QList{targetOption, layoutOption, jsonOption}},
        {Command::Monitor, "monitor", "", "Shows what a device hears.",
         device + QList{deviceOption, inputOption, throughOption}},
        {Command::Verify,
         "verify",
         "--in INPUT --take TAKE.wav",
         "Compares a take with the file that it was recorded from.",
         {fileOption, channelsOption, takeOption}},
    };
    return all;
}

QStringList targetNames()
{
    QStringList names;
    for (const QTovelMixer::LoudnessTarget &target : QTovelMixer::LoudnessTarget::all())
        names.append(target.name);
    return names;
}

QStringList verbNames()
{
    QStringList names;
    for (const Verb &verb : verbs()) {
        if (!names.contains(verb.name))
            names.append(verb.name);
    }
    return names;
}

} // namespace tovelmix
