// SPDX-License-Identifier: MIT
#include <tovelmix/manual.h>

#include <tovelmix/verbs.h>

#include <algorithm>

namespace tovelmix {

namespace {

constexpr int textWidth = 80;
constexpr int optionWidth = 22;

struct Entry
{
    QString name; ///< of an option, with its value
    QString text;
};

const char *const purpose = "Plays and records through the mixer, on real devices or from files.";
const char *const statuses =
    "It ends with 0 when all went well, 1 after a failure, 2 when it was "
    "called wrongly, 3 when there is no sound server or no device, and 4 when "
    "a file misses its target.";

QList<Entry> commonOptions()
{
    return {{"--help", "Prints this help; after a command, that of the command."},
            {"--version", "Prints the version."},
            {"--verbose", verboseOption.description()},
            {"--manual", "Prints the manual page."},
            {"--completion", "Prints the completion for bash."}};
}

QList<Entry> entries(const QList<QCommandLineOption> &options)
{
    QList<Entry> result;
    for (const QCommandLineOption &option : options) {
        const QString value = option.valueName();
        result.append(
            {"--" + option.names().constFirst() + (value.isEmpty() ? QString() : ' ' + value),
             option.description()});
    }
    return result;
}

QString wrapped(const QString &text, int indent)
{
    QString result;
    int column = indent;
    for (const QString &word : text.split(' ')) {
        if (column > indent && column + 1 + word.size() > textWidth) {
            result += '\n' + QString(indent, ' ');
            column = indent;
        } else if (column > indent) {
            result += ' ';
            ++column;
        }
        result += word;
        column += int(word.size());
    }
    return result + '\n';
}

QString list(const QList<Entry> &options)
{
    QString text;
    for (const Entry &option : options)
        text += "  " + option.name.leftJustified(optionWidth) + ' ' +
                wrapped(option.text, optionWidth + 3);
    return text;
}

QString usage(const Verb &verb)
{
    const QString arguments = verb.arguments;
    return QString("tovelmix %1%2 [OPTIONS]")
        .arg(verb.name, arguments.isEmpty() ? QString() : ' ' + arguments);
}

QString help(const Verb &verb)
{
    return "usage: " + usage(verb) + '\n' + verb.summary + "\n\n" + list(entries(verb.allowed));
}

QString help()
{
    QString text = QString("usage: tovelmix COMMAND [OPTIONS]\n%1\n\n").arg(purpose);
    for (const Verb &verb : verbs())
        text += "  " + usage(verb) + "\n      " + verb.summary + '\n';
    return text + '\n' + list(commonOptions()) + '\n' + wrapped(statuses, 0);
}

/// Text in the manual's language, in which a hyphen, a backslash and a leading dot mean something.
QString roff(QString text)
{
    text.replace('\\', "\\e").replace('-', "\\-");
    return text.startsWith('.') || text.startsWith('\'') ? "\\&" + text : text;
}

QString roffList(const QList<Entry> &options)
{
    QString text;
    for (const Entry &option : options)
        text += ".TP\n.B " + roff(option.name) + '\n' + roff(option.text) + '\n';
    return text;
}

} // namespace

QString helpText(const QString &verb)
{
    QStringList texts;
    for (const Verb &each : verbs()) {
        if (verb == each.name)
            texts.append(help(each));
    }
    return texts.isEmpty() ? help() : texts.join('\n');
}

QString manualPage()
{
    QString text = ".TH TOVELMIX 1\n.SH NAME\ntovelmix \\- plays and records through a mixer\n"
                   ".SH SYNOPSIS\n";
    for (const Verb &verb : verbs())
        text += ".B " + roff(usage(verb)) + "\n.br\n";
    text += QString(".SH DESCRIPTION\n%1\n.SH OPTIONS\n").arg(roff(purpose));
    text += roffList(commonOptions()) + ".SH COMMANDS\n";
    for (const Verb &verb : verbs())
        text += ".SS " + roff(usage(verb)) + '\n' + roff(verb.summary) + '\n' +
                roffList(entries(verb.allowed));
    return text + ".SH EXIT STATUS\n" + roff(statuses) + '\n';
}

QString bashCompletion()
{
    QString text = "_tovelmix() {\n"
                   "  local word=${COMP_WORDS[COMP_CWORD]} options=''\n"
                   "  if [ \"$COMP_CWORD\" -eq 1 ]; then\n"
                   "    options='" +
                   verbNames().join(' ') + " --help --version'\n  fi\n  case ${COMP_WORDS[1]} in\n";
    for (const QString &name : verbNames()) {
        QStringList options{"--help", "--verbose"};
        for (const Verb &verb : verbs()) {
            for (const QCommandLineOption &option : verb.allowed) {
                if (name == verb.name)
                    options.append("--" + option.names().constFirst());
            }
        }
        options.removeDuplicates();
        text += "    " + name + ") [ \"$COMP_CWORD\" -eq 1 ] || options='" + options.join(' ') +
                "' ;;\n";
    }
    return text + "  esac\n"
                  "  mapfile -t COMPREPLY < <(compgen -W \"$options\" -- \"$word\")\n"
                  "}\n"
                  "complete -o default -F _tovelmix tovelmix\n";
}

} // namespace tovelmix
