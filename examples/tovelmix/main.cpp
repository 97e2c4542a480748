// SPDX-License-Identifier: MIT
// A small host on the command line: records a file, played in a loop, through the mixer.
#include <tovelmix/interrupt.h>
#include <tovelmix/options.h>
#include <tovelmix/raw_input.h>
#include <tovelmix/recording.h>
#include <tovelmix/terminal_view.h>
#include <tovelmix/verify.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QLoggingCategory>

#include <cstdio>

namespace {

using namespace tovelmix;

enum ExitStatus { Done = 0, Failed = 1, Misused = 2 };

void print(const QString &text)
{
    std::fputs(text.toUtf8().constData(), stdout);
    std::fflush(stdout);
}

int complain(const QString &line, ExitStatus status)
{
    std::fprintf(stderr, "tovelmix: %s\n", line.toUtf8().constData());
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

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName("tovelmix");
    const Options options = parseOptions(QCoreApplication::arguments());
    if (!options.error.isEmpty())
        return complain(options.error, Misused);
    if (!options.verbose)
        QLoggingCategory::setFilterRules("default.info=false\ndefault.debug=false");
    switch (options.command) {
    case Options::Command::Record:
        return record(app, options);
    case Options::Command::Verify:
        return compare(options);
    case Options::Command::ShowText:
        print(options.text);
        return Done;
    }
    return Misused;
}
