// SPDX-License-Identifier: MIT
#include <mixer/api/control_panel_p.h>

#include <QtCore/QProcess>
#include <QtCore/QStandardPaths>
#include <QtCore/QStringList>

namespace QTovelMixer {

#if defined(Q_OS_MACOS)

void showSoundSettings(DeviceKind kind)
{
    const QString tab =
        kind == DeviceKind::Output ? QStringLiteral("Output") : QStringLiteral("Input");
    const QString script = QStringLiteral("tell application \"System Preferences\"\n"
                                          "activate\n"
                                          "reveal anchor \"%1\" of pane id "
                                          "\"com.apple.preference.sound\"\n"
                                          "end tell")
                               .arg(tab.toLower());
    const int status =
        QProcess::execute(QStringLiteral("/usr/bin/osascript"), {QStringLiteral("-e"), script});
    if (status != 0)
        QProcess::startDetached(QStringLiteral("/usr/bin/open"),
                                {QStringLiteral("/System/Library/PreferencePanes/Sound.prefPane")});
}

#else

namespace {

struct Settings
{
    const char *program;
    const char *outputArgument;
    const char *inputArgument;
};

// The first that is installed is shown.
constexpr Settings candidates[] = {
#if defined(Q_OS_WIN)
    {"control", "mmsys.cpl,,0", "mmsys.cpl,,1"},
#else
    {"pavucontrol", "--tab=3", "--tab=4"},
    {"gnome-control-center", "sound", "sound"},
    {"systemsettings", "kcm_pulseaudio", "kcm_pulseaudio"},
    {"pavucontrol-qt", "--tab=3", "--tab=4"},
#endif
};

} // namespace

void showSoundSettings(DeviceKind kind)
{
    for (const Settings &candidate : candidates) {
        const QString program =
            QStandardPaths::findExecutable(QString::fromLatin1(candidate.program));
        if (program.isEmpty())
            continue;
        const char *argument =
            kind == DeviceKind::Output ? candidate.outputArgument : candidate.inputArgument;
        QProcess::startDetached(program, {QString::fromLatin1(argument)});
        return;
    }
}

#endif

} // namespace QTovelMixer
