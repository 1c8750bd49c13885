#pragma once

#include <QCommandLineOption>
#include <QString>
#include <QVariant>

#include <cstdio>

// What every cabin-mediactl subcommand shares: printing one line, failing with one line on
// stderr, saying what went wrong on the bus in words that tell what to do, and reading the
// values typed at a shell.
//
// Thread: main thread (stdout and stderr). Owns nothing.
namespace MediaCtlSupport {

void say(FILE* stream, const QString& text);
// Prints "cabin-mediactl: <text>" on stderr and answers the failure status.
int fail(const QString& text);
QCommandLineOption jsonOption();
// "true"/"false" become booleans, whole numbers ints, other numbers doubles, the rest text.
QVariant guessValue(const QString& text);

// "the session bus", "the system bus" or "the bus at ADDRESS", for `bus` as --bus takes it.
QString busName(const QString& bus);
// The one line for a call that failed with the D-Bus error `errorName` because of the bus or
// of reaching the server (no server, access denied, connection lost, a server that lacks the
// call `what`): what happened and what to do. Empty for any other error, which is the
// server's own refusal and keeps its text.
QString transportProblem(const QString& bus, const QString& errorName, const QString& what);
// Whether the error says the call's time-out passed without an answer.
bool isTimeout(const QString& errorName);
// The server's states and errors by name and number, as `wait` and `load` show them.
QString stateNamesHelp();
// Items joined by ", " and broken before column 79, each line indented by two spaces.
QString wrapped(const QStringList& items);

} // namespace MediaCtlSupport
