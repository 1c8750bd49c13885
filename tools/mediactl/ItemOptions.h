#pragma once

#include <QCommandLineOption>
#include <QList>
#include <QString>

class SubcommandLine;

// The options of `cabin-mediactl load` and the two media item JSON texts they make: the item
// to play now and the item expected next (on deck). --json and --on-deck-json pass raw texts.
// Numbers are refused unless the server can read them: it reads them as 32-bit ints.
//
// Thread: any; stateless.
class ItemOptions
{
public:
    static QList<QCommandLineOption> options();
    // The keys of an item's JSON as the server reads them, the kind of value each takes and
    // the option that sets it, for --help.
    static QString keysHelp();
    // False, after saying why, when a number option holds no number the server can read.
    static bool itemJson(const SubcommandLine& line, const QString& url, QString* json);
    static QString onDeckJson(const SubcommandLine& line);
};
