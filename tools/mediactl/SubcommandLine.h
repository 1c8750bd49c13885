#pragma once

#include <QCommandLineParser>
#include <QStringList>

// The command line of one cabin-mediactl subcommand: its options and arguments, its --help
// (which names the subcommand and lists its own options only) and its refusals.
//
// A typed negative number ("seek -5", "set LINK_linkState -1") is an argument, never a
// cluster of short options, so it reaches the subcommand and is refused or taken by it.
//
// Thread: main thread. Failure: parse() and number() print one line on stderr,
// "cabin-mediactl: NAME: why", and return false.
class SubcommandLine
{
public:
    SubcommandLine(const QString& name, const QString& description);

    void addOptions(const QList<QCommandLineOption>& options);
    // `syntax` is how the argument shows in the usage line ("[MS]", "[NAME...]").
    void addArgument(const QString& name, const QString& description, const QString& syntax = QString());
    // Printed after the options and arguments in --help.
    void setNotes(const QString& notes) { mNotes = notes; }

    // False when the caller should return *status at once: the help was printed (0) or the
    // command line was refused (2).
    bool parse(const QStringList& args, int minArguments, int maxArguments, int* status);

    QStringList arguments() const { return mParser.positionalArguments(); }
    bool isSet(const QString& option) const { return mParser.isSet(option); }
    QString value(const QString& option) const { return mParser.value(option); }
    // Reads `text`, typed for `what` ("position", "--count"), as a whole number from min to
    // max; false after saying why ("seek: position -5 is negative").
    bool number(const QString& what, const QString& text, qint64 min, qint64 max, qint64* value) const;
    // Prints "cabin-mediactl: NAME: text" and answers the usage-error status.
    int fail(const QString& text) const;

private:
    QStringList withArgumentsLast(const QStringList& args) const;
    QString argumentCountError(int count, int minArguments, int maxArguments) const;
    QString helpText() const;

    QCommandLineParser mParser;
    QString mName;
    QString mNotes;
    QStringList mArgumentNames;
    QStringList mValueOptions;   // "--start", ...: options whose value is the next argument
};
