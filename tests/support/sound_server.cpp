// SPDX-License-Identifier: MIT
#include <support/sound_server.h>

#include <QtCore/QDeadlineTimer>
#include <QtCore/QDir>
#include <QtCore/QFile>

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace {

constexpr int lockPatience = 120000; // ms
constexpr int patience = 10000;      // ms, for anything that a healthy server does at once

void diesWithParent(QProcess &process)
{
    const pid_t parent = getpid();
    process.setChildProcessModifier([parent] {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent)
            _exit(1);
    });
}

QString contents(const QString &file)
{
    QFile log(file);
    return log.open(QIODevice::ReadOnly) ? QString::fromUtf8(log.readAll()) : QString();
}

} // namespace

bool removeUnlessMapped(const QString &folder)
{
    if (!QFile::exists(folder))
        return true;
    for (const QString &process : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs)) {
        if (contents(QStringLiteral("/proc/%1/maps").arg(process)).contains(folder + u'/'))
            return false;
    }
    return QDir(folder).removeRecursively();
}

ScopedEnvironment::~ScopedEnvironment()
{
    for (auto entry = m_before.cbegin(); entry != m_before.cend(); ++entry) {
        if (entry.value())
            qputenv(entry.key().constData(), *entry.value());
        else
            qunsetenv(entry.key().constData());
    }
}

void ScopedEnvironment::set(const QByteArray &name, const QString &value)
{
    remember(name);
    qputenv(name.constData(), value.toLocal8Bit());
}

void ScopedEnvironment::unset(const QByteArray &name)
{
    remember(name);
    qunsetenv(name.constData());
}

void ScopedEnvironment::remember(const QByteArray &name)
{
    if (m_before.contains(name))
        return;
    const bool isSet = qEnvironmentVariableIsSet(name.constData());
    m_before.insert(name, isSet ? std::optional(qgetenv(name.constData())) : std::nullopt);
}

ServerProcess::ServerProcess(const QString &log) : m_log(log)
{
    m_process.setProcessChannelMode(QProcess::MergedChannels);
    m_process.setStandardInputFile(QProcess::nullDevice());
    m_process.setStandardOutputFile(log);
    diesWithParent(m_process);
}

ServerProcess::~ServerProcess()
{
    end(SIGKILL);
}

bool ServerProcess::start(const QString &program, const QStringList &arguments)
{
    m_process.start(program, arguments);
    return m_process.waitForStarted(patience);
}

bool ServerProcess::isRunning() const
{
    const QString status = contents(QStringLiteral("/proc/%1/stat").arg(pid()));
    return pid() > 0 && !status.isEmpty() && !status.section(u')', -1).startsWith(u" Z");
}

bool ServerProcess::waitUntil(const std::function<bool()> &condition)
{
    const QDeadlineTimer deadline(patience);
    while (!condition()) {
        if (deadline.hasExpired() || m_process.state() == QProcess::NotRunning)
            return false;
        m_process.waitForFinished(5);
    }
    return true;
}

qint64 ServerProcess::pid() const
{
    return m_process.processId();
}

QString ServerProcess::program() const
{
    return m_process.program();
}

QString ServerProcess::output() const
{
    return contents(m_log);
}

void ServerProcess::end(int signal)
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    ::kill(pid_t(pid()), signal);
    if (!m_process.waitForFinished(signal == SIGKILL ? patience : 5000)) {
        m_process.kill();
        m_process.waitForFinished(patience);
    }
}

void ServerProcess::freeze()
{
    const QString status = QStringLiteral("/proc/%1/stat").arg(pid());
    ::kill(pid_t(pid()), SIGSTOP);
    waitUntil([&] { return contents(status).section(u')', -1).startsWith(u" T"); });
}

void ServerProcess::thaw()
{
    const QString status = QStringLiteral("/proc/%1/stat").arg(pid());
    ::kill(pid_t(pid()), SIGCONT);
    waitUntil([&] { return !contents(status).section(u')', -1).startsWith(u" T"); });
}

SoundServer::SoundServer() : m_folder(QDir::tempPath() + QStringLiteral("/sound-XXXXXX"))
{
    QDir folder(m_folder.path());
    for (const char *name : {"run", "home", "state"}) {
        folder.mkdir(QLatin1String(name));
        QFile::setPermissions(path(QLatin1String(name)),
                              QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }
    // Nothing of the machine's own sound set-up must be reached.
    environment.set("HOME", path(QStringLiteral("home")));
    environment.set("XDG_RUNTIME_DIR", path(QStringLiteral("run")));
    environment.set("XDG_CONFIG_HOME", path(QStringLiteral("home/.config")));
    environment.set("XDG_STATE_HOME", path(QStringLiteral("state")));
    environment.set("XDG_CACHE_HOME", path(QStringLiteral("home/.cache")));
    for (const char *name :
         {"PULSE_SERVER", "PULSE_SINK", "PULSE_SOURCE", "PULSE_COOKIE", "PULSE_CLIENTCONFIG",
          "PULSE_CONFIG_PATH", "PULSE_RUNTIME_PATH", "PULSE_STATE_PATH", "PULSE_LATENCY_MSEC",
          "PULSE_PROP", "JACK_DEFAULT_SERVER", "PIPEWIRE_REMOTE", "PIPEWIRE_LATENCY",
          "PIPEWIRE_QUANTUM", "PIPEWIRE_RUNTIME_DIR", "PIPEWIRE_PROPS", "DISPLAY",
          "DBUS_SESSION_BUS_ADDRESS"})
        environment.unset(name);
    environment.set("JACK_NO_START_SERVER", QStringLiteral("1"));
    environment.set("LC_ALL", QStringLiteral("C"));
    // The database in which JACK clients note properties outlives them all, and each one that was
    // killed leaves locks in it, until it is full and every client complains.
    removeUnlessMapped(QStringLiteral("/dev/shm/jack_db-%1").arg(getuid()));
}

SoundServer::~SoundServer()
{
    endAll();
}

void SoundServer::freeze()
{
    if (!m_programs.empty())
        m_programs.back()->freeze();
}

void SoundServer::thaw()
{
    if (!m_programs.empty())
        m_programs.back()->thaw();
}

bool SoundServer::isRunning() const
{
    return !m_programs.empty() && m_programs.back()->isRunning();
}

qint64 SoundServer::pid() const
{
    return m_programs.empty() ? 0 : m_programs.back()->pid();
}

QString SoundServer::report() const
{
    QString text = m_report;
    for (const auto &program : m_programs)
        text += QStringLiteral("\n--- %1:\n%2").arg(program->program(), program->output());
    return text;
}

bool SoundServer::run(const QString &program, const QStringList &arguments, QString *output)
{
    QProcess tool;
    tool.setProcessChannelMode(QProcess::MergedChannels);
    tool.setStandardInputFile(QProcess::nullDevice());
    diesWithParent(tool);
    tool.start(program, arguments);
    const bool ended = tool.waitForFinished(patience);
    if (!ended) {
        tool.kill();
        tool.waitForFinished(patience);
    }
    const QString printed = QString::fromUtf8(tool.readAll());
    if (output)
        *output = printed;
    if (ended && tool.exitStatus() == QProcess::NormalExit && tool.exitCode() == 0)
        return true;
    return fail(QStringLiteral("%1 %2: %3 %4")
                    .arg(program, arguments.join(u' '), tool.errorString(), printed));
}

QString SoundServer::path(const QString &name) const
{
    return m_folder.filePath(name);
}

bool SoundServer::launch(const QString &program, const QStringList &arguments)
{
    const QString log = path(QStringLiteral("%1.log").arg(++m_launched));
    m_programs.push_back(std::make_unique<ServerProcess>(log));
    return m_programs.back()->start(program, arguments) ||
           fail(QStringLiteral("%1 cannot be started").arg(program));
}

bool SoundServer::waitFor(const QString &program, const QStringList &arguments,
                          const QString &expected)
{
    const bool came = isRunning() && m_programs.back()->waitUntil([&] {
        QString output;
        return !isRunning() || (run(program, arguments, &output) && output.contains(expected));
    });
    if (isRunning() && came)
        m_report.clear();
    return isRunning() && came;
}

bool SoundServer::waitForFile(const QString &file)
{
    const bool came = isRunning() && m_programs.back()->waitUntil(
                                         [&] { return !isRunning() || QFile::exists(file); });
    return (isRunning() && came) || fail(file + QStringLiteral(" did not appear"));
}

bool SoundServer::fail(const QString &what)
{
    m_report = what;
    return false;
}

void SoundServer::endAll()
{
    while (!m_programs.empty())
        m_programs.pop_back();
}

void SoundServer::endMain(int signal)
{
    if (!m_programs.empty())
        m_programs.back()->end(signal);
}

QStringList PulseControl::commonArguments(const Sink &sink)
{
    QStringList arguments{
        QStringLiteral("sink_name=%1").arg(sink.name), QStringLiteral("format=float32le"),
        QStringLiteral("rate=%1").arg(sink.rate), QStringLiteral("channels=%1").arg(sink.channels),
        QStringLiteral("sink_properties=device.description=%1").arg(sink.description)};
    if (!sink.map.isEmpty())
        arguments.append(QStringLiteral("channel_map=") + sink.map);
    return arguments;
}

int PulseControl::loadSink(const Sink &sink)
{
    QString output;
    if (!run(QStringLiteral("pactl"),
             QStringList{QStringLiteral("load-module"), QStringLiteral("module-null-sink")} +
                 sinkArguments(sink),
             &output))
        return -1;
    bool isNumber = false;
    const int module = output.trimmed().toInt(&isNumber);
    return isNumber ? module : -1;
}

bool PulseControl::unload(int module)
{
    return run(QStringLiteral("pactl"), {QStringLiteral("unload-module"), QString::number(module)});
}

bool PulseControl::setDefaultSink(const QString &name)
{
    return run(QStringLiteral("pactl"), {QStringLiteral("set-default-sink"), name});
}

bool PulseControl::setDefaultSource(const QString &name)
{
    return run(QStringLiteral("pactl"), {QStringLiteral("set-default-source"), name});
}

QStringList PulseControl::sinks()
{
    QString output;
    QStringList names;
    run(QStringLiteral("pactl"),
        {QStringLiteral("list"), QStringLiteral("short"), QStringLiteral("sinks")}, &output);
    for (const QString &line : output.split(u'\n', Qt::SkipEmptyParts))
        names.append(line.section(u'\t', 1, 1));
    return names;
}

PulseServer::PulseServer(const QList<Sink> &sinks, bool prompt) : m_sinks(sinks), m_prompt(prompt)
{
    environment.set("PULSE_RUNTIME_PATH", path(QStringLiteral("run/pulse")));
    environment.set("PULSE_STATE_PATH", path(QStringLiteral("state")));
    environment.set("PULSE_SERVER", QStringLiteral("unix:") + path(QStringLiteral("run/native")));
}

PulseServer::~PulseServer() = default;

bool PulseServer::start()
{
    endAll();
    QStringList arguments{QStringLiteral("-n"),
                          QStringLiteral("--daemonize=no"),
                          QStringLiteral("--exit-idle-time=-1"),
                          QStringLiteral("--log-target=stderr"),
                          QStringLiteral("--realtime=no"),
                          QStringLiteral("--high-priority=no"),
                          QStringLiteral("--use-pid-file=no"),
                          QStringLiteral("-L"),
                          QStringLiteral("module-native-protocol-unix auth-anonymous=1 socket=") +
                              path(QStringLiteral("run/native"))};
    for (const Sink &sink : m_sinks) {
        arguments += {QStringLiteral("-L"),
                      QStringLiteral("module-null-sink ") + sinkArguments(sink).join(u' ')};
    }
    QFile::remove(path(QStringLiteral("run/native")));
    return launch(QStringLiteral("pulseaudio"), arguments) &&
           waitFor(QStringLiteral("pactl"), {QStringLiteral("info")}) &&
           (m_sinks.isEmpty() ||
            waitFor(QStringLiteral("pactl"),
                    {QStringLiteral("list"), QStringLiteral("short"), QStringLiteral("sinks")},
                    m_sinks.last().name));
}

QStringList PulseServer::sinkArguments(const Sink &sink) const
{
    return commonArguments(sink) +
           QStringList{QStringLiteral("norewinds=%1").arg(m_prompt ? 1 : 0)};
}

AlsaServer::AlsaServer(const QList<Sink> &sinks) : PulseServer(sinks)
{
    QFile configuration(path(QStringLiteral("home/.asoundrc")));
    if (configuration.open(QIODevice::WriteOnly))
        configuration.write("pcm.!default { type pulse }\nctl.!default { type pulse }\n");
}

bool AlsaServer::start()
{
    return PulseServer::start();
}

PipeWireServer::PipeWireServer(const QList<Sink> &sinks) : m_sinks(sinks)
{
    environment.set("DBUS_SESSION_BUS_ADDRESS",
                    QStringLiteral("unix:path=") + path(QStringLiteral("run/bus")));
    environment.set("PULSE_SERVER",
                    QStringLiteral("unix:") + path(QStringLiteral("run/pulse/native")));
    QFile configuration(path(QStringLiteral("bus.conf")));
    if (configuration.open(QIODevice::WriteOnly)) {
        configuration.write(
            QStringLiteral("<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus "
                           "Configuration 1.0//EN\" "
                           "\"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
                           "<busconfig><type>session</type><listen>unix:path=%1</listen>"
                           "<auth>EXTERNAL</auth><policy context=\"default\">"
                           "<allow send_destination=\"*\" eavesdrop=\"true\"/>"
                           "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>\n")
                .arg(path(QStringLiteral("run/bus")))
                .toUtf8());
    }
    // No hardware, and none of the login service that bluetooth asks for: containers have neither.
    for (const char *monitor : {"bluetooth.lua.d", "main.lua.d"}) {
        const QString folder =
            path(QStringLiteral("home/.config/wireplumber/") + QLatin1String(monitor));
        QDir().mkpath(folder);
        QFile off(folder + QStringLiteral("/60-no-hardware.lua"));
        if (off.open(QIODevice::WriteOnly))
            off.write(monitor[0] == 'b' ? "bluez_monitor.enabled = false\n"
                                        : "alsa_monitor.enabled = false\n");
    }
}

PipeWireServer::~PipeWireServer() = default;

bool PipeWireServer::start()
{
    endAll();
    const QString socket = path(QStringLiteral("run/pipewire-0"));
    const QString pulseSocket = path(QStringLiteral("run/pulse/native"));
    for (const QString &file : {path(QStringLiteral("run/bus")), socket, pulseSocket})
        QFile::remove(file);
    // The session manager needs a bus and the server; clients of either face depend on the last.
    if (!launch(QStringLiteral("dbus-daemon"),
                {QStringLiteral("--nofork"),
                 QStringLiteral("--config-file=") + path(QStringLiteral("bus.conf"))}) ||
        !waitForFile(path(QStringLiteral("run/bus"))) || !launch(QStringLiteral("pipewire"), {}) ||
        !waitForFile(socket) || !launch(QStringLiteral("wireplumber"), {}) ||
        !launch(QStringLiteral("pipewire-pulse"), {}) || !waitForFile(pulseSocket) ||
        !waitFor(QStringLiteral("pactl"), {QStringLiteral("info")}))
        return false;
    for (const Sink &sink : std::as_const(m_sinks)) {
        if (loadSink(sink) < 0)
            return false;
    }
    // Defaults come from the session manager, a moment later.
    return m_sinks.isEmpty() || waitFor(QStringLiteral("pactl"), {QStringLiteral("info")},
                                        QStringLiteral("Default Source: ") + m_sinks.first().name);
}

bool PipeWireServer::forceQuantum(int frames)
{
    return run(QStringLiteral("pw-metadata"),
               {QStringLiteral("-n"), QStringLiteral("settings"), QStringLiteral("0"),
                QStringLiteral("clock.force-quantum"), QString::number(frames)});
}

QStringList PipeWireServer::sinkArguments(const Sink &sink) const
{
    return commonArguments(sink);
}

// Servers share memory that knows eight of them by name, also those that were killed, until one of
// the same name starts again; and one that starts disturbs the clients of others. So there is one
// name, and one server at a time.
JackServer::JackServer(int rate, int period, int ports)
    : m_lock(QDir::temp().filePath(QStringLiteral("sound-server-jack"))), m_rate(rate),
      m_period(period), m_ports(ports)
{
    m_lock.setStaleLockTime(0);
    if (!m_lock.tryLock(lockPatience))
        fail(QStringLiteral("another test holds its JACK server"));
    environment.set("JACK_DEFAULT_SERVER", QStringLiteral("sound"));
    environment.set("JACK_NO_AUDIO_RESERVATION", QStringLiteral("1"));
}

JackServer::~JackServer()
{
    endAll();
}

bool JackServer::start()
{
    endAll();
    return m_lock.isLocked() &&
           launch(QStringLiteral("jackd"),
                  {QStringLiteral("--no-realtime"), QStringLiteral("--no-mlock"),
                   QStringLiteral("--name"), qEnvironmentVariable("JACK_DEFAULT_SERVER"),
                   QStringLiteral("-d"), QStringLiteral("dummy"), QStringLiteral("-r"),
                   QString::number(m_rate), QStringLiteral("-p"), QString::number(m_period),
                   QStringLiteral("-C"), QString::number(m_ports), QStringLiteral("-P"),
                   QString::number(m_ports)}) &&
           waitFor(QStringLiteral("jack_lsp"), {},
                   QStringLiteral("system:playback_%1").arg(m_ports));
}

bool JackServer::setPeriod(int frames)
{
    return run(QStringLiteral("jack_bufsize"), {QString::number(frames)});
}

bool JackServer::setFreewheel(bool on)
{
    return run(QStringLiteral("jack_freewheel"), {on ? QStringLiteral("y") : QStringLiteral("n")});
}

bool JackServer::connectPorts(const QString &output, const QString &input)
{
    return run(QStringLiteral("jack_connect"), {output, input});
}

bool JackServer::disconnectPorts(const QString &output, const QString &input)
{
    return run(QStringLiteral("jack_disconnect"), {output, input});
}

QStringList JackServer::ports()
{
    QString output;
    run(QStringLiteral("jack_lsp"), {}, &output);
    return output.split(u'\n', Qt::SkipEmptyParts);
}

QStringList JackServer::connections()
{
    QString output;
    run(QStringLiteral("jack_lsp"), {QStringLiteral("-c")}, &output);
    return output.split(u'\n', Qt::SkipEmptyParts);
}
