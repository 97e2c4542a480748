// SPDX-License-Identifier: MIT
// A host on the command line: lists, plays, records and shows devices, and records files.
#include <tovelmix/device_list.h>
#include <tovelmix/interrupt.h>
#include <tovelmix/live_recording.h>
#include <tovelmix/measure.h>
#include <tovelmix/monitoring.h>
#include <tovelmix/options.h>
#include <tovelmix/playback.h>
#include <tovelmix/printable.h>
#include <tovelmix/raw_input.h>
#include <tovelmix/recording.h>
#include <tovelmix/render.h>
#include <tovelmix/terminal_view.h>
#include <tovelmix/verify.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QLoggingCategory>
#include <QtCore/QTimer>

#include <cstdio>

#include <dlfcn.h>
#include <unistd.h>

namespace {

using namespace tovelmix;

void print(const QString &text)
{
    std::fputs(text.toUtf8().constData(), stdout);
    std::fflush(stdout);
}

int complain(const QString &line, ExitStatus status)
{
    std::fprintf(stderr, "tovelmix: %s\n", printable(line).toUtf8().constData());
    return status;
}

int complain(const Outcome &outcome)
{
    return outcome.complaint.isEmpty() ? int(outcome.status)
                                       : complain(outcome.complaint, outcome.status);
}

int listDevices(const QCoreApplication &app, const Options &options)
{
    DeviceList list(options.devices, options.json);
    if (!list.open())
        return complain(list.outcome());
    if (!options.watch) {
        list.print();
        return Done;
    }
    Interrupt interrupt;
    QObject::connect(&interrupt, &Interrupt::interrupted, &app, &QCoreApplication::quit);
    if (options.seconds > 0.0)
        QTimer::singleShot(int(options.seconds * 1000.0), &app, &QCoreApplication::quit);
    list.watch();
    QCoreApplication::exec();
    return Done;
}

/// Runs a command on real devices until it has ended.
int run(const QCoreApplication &app, LiveCommand &command)
{
    QObject::connect(&command, &LiveCommand::finished, &app, &QCoreApplication::quit);
    Interrupt interrupt;
    QObject::connect(&interrupt, &Interrupt::interrupted, &command, &LiveCommand::interrupt);
    if (!command.start())
        return complain(command.outcome());
    print(command.title());
    TerminalView view(command);
    QObject::connect(&command, &LiveCommand::announced, &view, &TerminalView::announce);
    QCoreApplication::exec();
    view.finish();
    return complain(command.outcome());
}

int recordDevice(const QCoreApplication &app, const Options &options)
{
    LiveRecording recording(options.devices, options.take);
    const int status = run(app, recording);
    if (recording.take().frames > 0 && recording.take().error.isEmpty())
        print('\n' + table(recording.take()));
    return status;
}

int record(const QCoreApplication &app, const Options &options)
{
    const RawInput input(options.input, options.channels);
    if (!input.error().isEmpty())
        return complain(input.error(), Failed);
    Recording recording(input, framesOf(options.seconds), options.take);
    QObject::connect(&recording, &Recording::finished, &app, &QCoreApplication::quit);
    Interrupt interrupt;
    QObject::connect(&interrupt, &Interrupt::interrupted, &recording, &Recording::finishEarly);
    if (!recording.start())
        return complain(recording.take().error, Failed);
    print(input.description() + '\n');
    TerminalView view(recording);
    QCoreApplication::exec();
    view.finish();
    const Take &take = recording.take();
    if (!take.error.isEmpty())
        return complain(take.error, Failed);
    if (take.frames < recording.wantedFrames())
        print("interrupted: the take ends early\n");
    print('\n' + table(take));
    return Done;
}

int render(const QCoreApplication &app, const Options &options)
{
    Interrupt interrupt;
    Rendering rendering({options.session, options.mix, options.picture, options.force});
    QObject::connect(&rendering, &Rendering::finished, &app, &QCoreApplication::quit,
                     Qt::QueuedConnection);
    QObject::connect(&interrupt, &Interrupt::interrupted, &rendering, &Rendering::interrupt);
    if (!rendering.start())
        return complain(rendering.outcome());
    QTimer timer;
    const bool live = !options.json && isatty(STDOUT_FILENO) != 0;
    const auto draw = [&rendering] { print('\r' + rendering.progress() + "\x1b[K"); };
    QObject::connect(&timer, &QTimer::timeout, &rendering, draw);
    if (live)
        timer.start(100);
    QCoreApplication::exec();
    if (live) {
        draw();
        print("\n");
    }
    if (rendering.outcome().status != Done)
        return complain(rendering.outcome());
    print(options.json ? QString::fromUtf8(rendering.json()) : rendering.table());
    return Done;
}

int measure(const Options &options)
{
    const auto layout = QTovelMixer::ChannelLayout::named(options.layout);
    const auto *const target = QTovelMixer::LoudnessTarget::find(options.target);
    QList<Measurement> measurements;
    ExitStatus status = Done;
    for (const QString &path : options.files) {
        const Measurement measurement = measureFile(path, layout);
        if (!measurement.error.isEmpty())
            return complain(measurement.error, Failed);
        if (!meets(measurement, target))
            status = Missed;
        if (options.json)
            measurements.append(measurement);
        else
            print(table(measurement, target));
    }
    if (options.json)
        print(QString::fromUtf8(json(measurements, target)));
    return status;
}

int compare(const Options &options)
{
    const RawInput input(options.input, options.channels);
    if (!input.error().isEmpty())
        return complain(input.error(), Failed);
    const Verdict verdict = verify(input, options.take);
    if (!verdict.error.isEmpty())
        return complain(verdict.error, Failed);
    print(verdict.text + '\n');
    return verdict.equal ? Done : Failed;
}

void ignoreAlsaMessage(const char *, int, const char *, int, const char *, ...) {}

/// The commands on devices say what matters about failures themselves, in one line.
void quieten(Options::Command command)
{
    QString rules = "default.info=false\ndefault.debug=false";
    if (command != Options::Command::Record && command != Options::Command::Verify)
        rules += "\ndefault.warning=false\ndefault.critical=false";
    QLoggingCategory::setFilterRules(rules);
    // ALSA's library prints what it does not find; it is there when RtAudio was built with it.
    using Handler = void (*)(const char *, int, const char *, int, const char *, ...);
    if (void *const set = dlsym(RTLD_DEFAULT, "snd_lib_error_set_handler"))
        reinterpret_cast<int (*)(Handler)>(set)(ignoreAlsaMessage);
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName("tovelmix");
    const Options options = parseOptions(QCoreApplication::arguments());
    if (!options.error.isEmpty())
        return complain(options.error, Misused);
    if (!options.verbose)
        quieten(options.command);
    switch (options.command) {
    case Options::Command::Devices:
        return listDevices(app, options);
    case Options::Command::Play: {
        Playback playback(options.devices, options.files);
        return run(app, playback);
    }
    case Options::Command::RecordDevice:
        return recordDevice(app, options);
    case Options::Command::Monitor: {
        Monitoring monitoring(options.devices, options.through);
        return run(app, monitoring);
    }
    case Options::Command::Record:
        return record(app, options);
    case Options::Command::Render:
        return render(app, options);
    case Options::Command::Measure:
        return measure(options);
    case Options::Command::Verify:
        return compare(options);
    case Options::Command::ShowText:
        print(options.text);
        return Done;
    }
    return Misused;
}
