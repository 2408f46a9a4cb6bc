// cotool: command-line access to a CAN bus through the library's adapters.
//   cotool <command> [options] [arguments]
// Common options (adapter, interface, bit rate, virtual bus port, gateway)
// are accepted before or after the command name.
#include "canopenmasterclass.h"
#include "adapterscommand.h"
#include "command.h"
#include "dumpcommand.h"
#include "emcycommand.h"
#include "lsscommand.h"
#include "monitorcommand.h"
#include "nmtcommand.h"
#include "pdocommand.h"
#include "sdocommand.h"
#include "sendcommand.h"
#include "synccommand.h"
#include "signalwatcher.h"
#include "tooloptions.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <cstdio>
#include <memory>
#include <vector>

namespace {

// The registry: one line per command.
std::vector<std::unique_ptr<Command>> makeCommands()
{
    std::vector<std::unique_ptr<Command>> commands;
    commands.push_back(std::make_unique<DumpCommand>());
    commands.push_back(std::make_unique<SendCommand>());
    commands.push_back(std::make_unique<NmtCommand>());
    commands.push_back(std::make_unique<MonitorCommand>());
    commands.push_back(std::make_unique<SyncCommand>());
    commands.push_back(std::make_unique<EmcyCommand>());
    commands.push_back(std::make_unique<PdoCommand>());
    commands.push_back(std::make_unique<SdoCommand>());
    commands.push_back(std::make_unique<LssCommand>());
    commands.push_back(std::make_unique<AdaptersCommand>());
    return commands;
}

void print(FILE* stream, const QString& text)
{
    const QByteArray bytes = text.toLocal8Bit();
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stream);
}

// Qt's help text names the program by its full path; show "cotool <command>".
QString helpText(const QCommandLineParser& parser, const QString& usage)
{
    QString text = parser.helpText();
    const int end = text.indexOf(QLatin1Char('\n'));
    return QStringLiteral("Usage: %1").arg(usage) + text.mid(end);
}

QString globalHelp(const QCommandLineParser& parser, const std::vector<std::unique_ptr<Command>>& commands)
{
    QString text = helpText(parser, QStringLiteral("cotool <command> [options] [arguments]"));
    text += QStringLiteral("\nCommands:\n");
    for (const auto& command : commands)
        text += QStringLiteral("  %1  %2\n").arg(command->name(), -10).arg(command->summary());
    text += QStringLiteral("\n'cotool <command> --help' shows a command's own options.\n"
                           "Exit codes: 0 success, 1 failure, 2 bad arguments.\n");
    return text;
}

int usageError(const QString& message)
{
    print(stderr, QStringLiteral("cotool: %1\nTry 'cotool --help'.\n").arg(message));
    return Command::UsageError;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("cotool"));
    CanopenMaster master;
    const std::vector<std::unique_ptr<Command>> commands = makeCommands();
    const QStringList args = QCoreApplication::arguments();

    // First pass: common options up to the command name.
    ToolOptions common;
    QCommandLineParser first;
    first.setApplicationDescription(QStringLiteral("Command-line access to a CAN bus through the CANopen master library."));
    first.setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsPositionalArguments);
    const QCommandLineOption helpOption = first.addHelpOption();
    common.addTo(first);
    if (!first.parse(args))
        return usageError(first.errorText());
    const QStringList rest = first.positionalArguments();
    const bool helpAll = first.isSet(QStringLiteral("help-all"));
    if (rest.isEmpty()) {
        if (first.isSet(helpOption) || helpAll) {
            print(stdout, globalHelp(first, commands));
            return Command::Success;
        }
        return usageError(QStringLiteral("no command given"));
    }
    QString name = rest.first();
    bool helpRequested = false;
    if (name == QLatin1String("help")) { // "cotool help dump"
        if (rest.size() < 2) {
            print(stdout, globalHelp(first, commands));
            return Command::Success;
        }
        name = rest.at(1);
        helpRequested = true;
    }
    Command* command = nullptr;
    for (const auto& c : commands) {
        if (c->name() == name)
            command = c.get();
    }
    if (!command)
        return usageError(QStringLiteral("unknown command '%1'").arg(name));

    // Second pass: the whole line without the command name, against the
    // common options and the command's own.
    QStringList commandArgs = args.mid(0, args.size() - rest.size());
    // Negative numbers are values, not options ("sdo write 5 2000 3 i16 -300"):
    // they go after "--", where everything is positional, so they must be a
    // command's last positional arguments.
    QStringList negatives;
    for (const QString& a : rest.mid(helpRequested ? 2 : 1)) {
        if (a.size() > 1 && a[0] == QLatin1Char('-') && (a[1].isDigit() || a[1] == QLatin1Char('.')))
            negatives << a;
        else
            commandArgs << a;
    }
    if (!negatives.isEmpty())
        commandArgs << QStringLiteral("--") << negatives;
    QCommandLineParser parser;
    parser.setApplicationDescription(command->summary());
    parser.addHelpOption();
    common.addTo(parser, command->acceptsGateway());
    command->addOptions(parser);
    if (!parser.parse(commandArgs))
        return usageError(QStringLiteral("%1: %2").arg(name, parser.errorText()));
    if (helpRequested || parser.isSet(helpOption) || parser.isSet(QStringLiteral("help-all"))) {
        print(stdout, helpText(parser, QStringLiteral("cotool %1 [options]%2").arg(name,
            parser.helpText().section(QLatin1Char('\n'), 0, 0).section(QStringLiteral("[options]"), 1))));
        return Command::Success;
    }
    QString error;
    if (!common.read(parser, &error))
        return usageError(QStringLiteral("%1: %2").arg(name, error));
    if (common.hasGateway() && !command->acceptsGateway())
        return usageError(QStringLiteral("%1: --gateway is not supported by this command").arg(name));

    // Ctrl-C and SIGTERM end the command's event loop cleanly (self-pipe).
    SignalWatcher* watcher = SignalWatcher::quitOnTermination(&app);
    QObject::connect(watcher, &SignalWatcher::signalReceived, []() { Command::setInterrupted(); });
    return command->run(parser, common);
}
