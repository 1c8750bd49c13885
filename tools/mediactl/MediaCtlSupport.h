#pragma once

#include <QCommandLineOption>
#include <QString>
#include <QVariant>

#include <cstdio>

class QCommandLineParser;

// What every cabin-mediactl subcommand shares: printing one line, failing with one line on
// stderr, parsing its own arguments, and reading numbers and values typed at a shell.
//
// Thread: main thread (stdout and stderr). Owns nothing.
namespace MediaCtlSupport {

void say(FILE* stream, const QString& text);
// Prints "cabin-mediactl: <text>" on stderr and answers the failure status.
int fail(const QString& text);
// Parses a subcommand's arguments; `result` is set when the caller should return at once
// (help shown, or a usage error reported).
bool parseSubcommand(QCommandLineParser* parser, const QString& name, const QStringList& args, int minPositional,
                     int maxPositional, int* result);
QCommandLineOption jsonOption();
bool parseInt(const QString& text, int* value);
// "true"/"false" become booleans, whole numbers ints, other numbers doubles, the rest text.
QVariant guessValue(const QString& text);

} // namespace MediaCtlSupport
