#ifndef COMMAND_H
#define COMMAND_H

#include <QString>

class QCommandLineOption;
class QCommandLineParser;
class ToolOptions;

// One cotool subcommand. A new command is one class derived from this (one
// file pair) plus one line in main.cpp's registry. main.cpp parses the
// command line with the common options (ToolOptions) and the command's own
// ones, handles --help, then calls run().
class Command
{
public:
    enum ExitCode { Success = 0, Failure = 1, UsageError = 2 };

    virtual ~Command();

    virtual QString name() const = 0;
    // One line for the command list of `cotool --help`.
    virtual QString summary() const = 0;
    // Whether --gateway host:port makes sense for this command.
    virtual bool acceptsGateway() const { return false; }
    // Adds the command's own options and positional arguments.
    virtual void addOptions(QCommandLineParser& parser) = 0;
    // Runs the command (with an event loop if it needs one) and returns the
    // process exit code.
    virtual int run(const QCommandLineParser& parser, const ToolOptions& options) = 0;

    // Set by main.cpp when SIGINT or SIGTERM arrived (the event loop is
    // quit as well); commands that loop on their own check it.
    static bool interrupted();
    static void setInterrupted();

protected:
    // Runs the event loop for `ms` milliseconds; false when interrupted.
    static bool waitFor(int ms);
    // "cotool <name>: message" on stderr; returns UsageError.
    int usageError(const QString& message) const;
    // "cotool <name>: message" on stderr; returns Failure.
    int failure(const QString& message) const;
    // "cotool <name>: message" on stderr, nothing returned.
    void note(const QString& message) const;
    // One line on stdout, flushed at once (output is often piped).
    static void out(const QString& line);
    // The value of an option that wants a number 1..max, or 0 when the
    // option is not given; false with *error when it is not such a number.
    static bool positiveOption(const QCommandLineParser& parser, const QCommandLineOption& option, qint64 max,
                               qint64& value, QString* error);
    // Runs the event loop until QCoreApplication::quit(), Ctrl-C, or (when
    // not 0) durationMs have passed.
    static void runEventLoop(qint64 durationMs);
};

#endif
