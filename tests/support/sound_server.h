// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_SUPPORT_SOUND_SERVER_H
#define QTOVELMIXER_TESTS_SUPPORT_SOUND_SERVER_H

#include <QtCore/QByteArray>
#include <QtCore/QLockFile>
#include <QtCore/QMap>
#include <QtCore/QProcess>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QTemporaryDir>

#include <functional>
#include <memory>
#include <optional>
#include <vector>

/// Sets variables of the process's environment and puts the old values back at its end. Only for
/// the time before and after the code under test runs threads.
class ScopedEnvironment
{
public:
    ScopedEnvironment() = default;
    ~ScopedEnvironment();
    Q_DISABLE_COPY_MOVE(ScopedEnvironment)

    void set(const QByteArray &name, const QString &value);
    void unset(const QByteArray &name);

private:
    void remember(const QByteArray &name);

    QMap<QByteArray, std::optional<QByteArray>> m_before;
};

/// Removes a folder of files that processes share through their memory. False, and nothing is done,
/// while one maps a file of it: then it is not a leftover.
bool removeUnlessMapped(const QString &folder);

/// A program that dies with the test, however the test ends. What it prints goes to a file.
class ServerProcess
{
public:
    /// `log` is the path of the file.
    explicit ServerProcess(const QString &log);
    ~ServerProcess(); ///< kills it, frozen or not, and waits for its end
    Q_DISABLE_COPY_MOVE(ServerProcess)

    bool start(const QString &program, const QStringList &arguments);
    bool isRunning() const;
    /// Nothing announces what a program does but its end: the condition is looked at then, and
    /// every 5 ms. False after 10 s, or when it ended without it.
    bool waitUntil(const std::function<bool()> &condition);
    qint64 pid() const;
    QString program() const;
    QString output() const;

    /// SIGKILL, SIGTERM: waits until it is gone (after 5 s it is killed in any case).
    void end(int signal);
    /// SIGSTOP and SIGCONT; return when the program has stopped, or runs again.
    void freeze();
    void thaw();

private:
    QString m_log;
    QProcess m_process;
};

/// A private sound system: a folder, the variables that point to it, and the programs.
///
/// Create it before the code under test, end it afterwards: its variables are the process's. The
/// operations answer false, after at most 10 s, when something went wrong; `report` then says what,
/// with the output of the programs. Threads: the one that made the object.
class SoundServer
{
public:
    virtual ~SoundServer();
    Q_DISABLE_COPY_MOVE(SoundServer)

    /// Starts the programs, also anew after their end, and waits until they answer.
    virtual bool start() = 0;

    /// What happens to the program that clients talk to.
    void kill() { endMain(9); }
    void terminate() { endMain(15); }
    void freeze();
    void thaw();
    bool isRunning() const;
    qint64 pid() const;

    QString report() const;

    /// Runs a tool in this environment. `output`, when given, gets what it printed.
    bool run(const QString &program, const QStringList &arguments, QString *output = nullptr);

protected:
    SoundServer();

    QString path(const QString &name) const;
    /// Starts a program; the last one started is the one that clients talk to.
    bool launch(const QString &program, const QStringList &arguments);
    /// Asks until the tool succeeds and its output satisfies.
    bool waitFor(const QString &program, const QStringList &arguments,
                 const QString &expected = QString());
    bool waitForFile(const QString &file);
    bool fail(const QString &what);
    void endAll();

    ScopedEnvironment environment;

private:
    void endMain(int signal);

    QTemporaryDir m_folder;
    std::vector<std::unique_ptr<ServerProcess>> m_programs;
    int m_launched = 0;
    QString m_report;
};

/// Sinks and sources of a server that speaks PulseAudio's protocol.
class PulseControl : public SoundServer
{
public:
    struct Sink
    {
        QString name;
        QString description;
        int rate = 48000;
        int channels = 2;
        QString map = {}; ///< names of the channels with commas between; empty: the server's own
    };

    /// Loads a sink without hardware, which passes every float to its monitor as it is. Answers
    /// the module's number, −1 when that failed.
    int loadSink(const Sink &sink);
    bool unload(int module);
    bool setDefaultSink(const QString &name);
    bool setDefaultSource(const QString &name);
    QStringList sinks();

protected:
    virtual QStringList sinkArguments(const Sink &sink) const = 0;
    /// What every such server understands.
    static QStringList commonArguments(const Sink &sink);
};

/// A PulseAudio server with the sinks given.
class PulseServer : public PulseControl
{
public:
    /// A sink without clients rests for up to 2 s at a time, and so does its first client, unless
    /// `prompt`: then 50 ms.
    explicit PulseServer(const QList<Sink> &sinks, bool prompt = true);
    ~PulseServer() override;

    bool start() override;

    static QList<Sink> oneSink() { return {{QStringLiteral("null1"), QStringLiteral("NULL1")}}; }
    static QList<Sink> twoSinks()
    {
        return oneSink() + QList<Sink>{{QStringLiteral("null2"), QStringLiteral("NULL2")}};
    }

protected:
    QStringList sinkArguments(const Sink &sink) const override;

private:
    QList<Sink> m_sinks;
    bool m_prompt;
};

/// ALSA whose default device is a private PulseAudio server.
class AlsaServer : public PulseServer
{
public:
    explicit AlsaServer(const QList<Sink> &sinks = oneSink());

    bool start() override;
};

/// PipeWire with its session manager and its PulseAudio and JACK faces.
class PipeWireServer : public PulseControl
{
public:
    explicit PipeWireServer(const QList<Sink> &sinks);
    ~PipeWireServer() override;

    bool start() override;
    /// Makes every client run in blocks of this size; 0: as it likes.
    bool forceQuantum(int frames);

protected:
    QStringList sinkArguments(const Sink &sink) const override;

private:
    QList<Sink> m_sinks;
};

/// A JACK server on the dummy driver, with as many capture as playback ports. The machine runs one
/// at a time: the constructor waits.
class JackServer : public SoundServer
{
public:
    explicit JackServer(int rate = 48000, int period = 512, int ports = 2);
    ~JackServer() override;

    bool start() override;
    bool setPeriod(int frames);
    bool setFreewheel(bool on);
    bool connectPorts(const QString &output, const QString &input);
    bool disconnectPorts(const QString &output, const QString &input);
    QStringList ports();
    QStringList connections(); ///< the ports, each followed by those it is connected to

private:
    QLockFile m_lock;
    int m_rate;
    int m_period;
    int m_ports;
};

#endif
