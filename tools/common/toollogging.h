#ifndef TOOLLOGGING_H
#define TOOLLOGGING_H

#include <QCommandLineOption>

// What the programs in tools/ let through of Qt's message log: the library's
// debug and info lines only with -v/--verbose, warnings and worse always.
// The programs print their own output themselves, never through qDebug().
namespace ToolLogging {
// The -v/--verbose option, for the program's parser.
QCommandLineOption verboseOption();
// Installs the filter (again: changes the setting).
void install(bool verbose);
} // namespace ToolLogging

#endif
