#include "tools/mediactl/SubcommandLine.h"

#include "tools/common/ShellNumber.h"
#include "tools/common/ToolOutput.h"
#include "tools/mediactl/MediaCtlSupport.h"

#include <QCoreApplication>

using MediaCtlSupport::say;

namespace {

bool isNegativeNumber(const QString& arg)
{
    return arg.size() > 1 && arg.startsWith(QLatin1Char('-')) && arg.at(1).isDigit();
}

} // namespace

SubcommandLine::SubcommandLine(const QString& name, const QString& description)
    : mName(name)
{
    mParser.setApplicationDescription(description);
    // Qt's own help option adds --help-all, which lists Qt's options rather than ours.
    mParser.addOption({{QStringLiteral("h"), QStringLiteral("help")}, QStringLiteral("Show this help.")});
}

void SubcommandLine::addOptions(const QList<QCommandLineOption>& options)
{
    mParser.addOptions(options);
    for (const QCommandLineOption& option : options)
        if (!option.valueName().isEmpty())
            mValueOptions.append(QStringLiteral("--") + option.names().constLast());
}

void SubcommandLine::addArgument(const QString& name, const QString& description, const QString& syntax)
{
    mParser.addPositionalArgument(name, description, syntax);
    mArgumentNames.append(name);
}

// Options first, then "--" and the arguments in their order: after "--" Qt takes every word,
// a negative number too, as an argument.
QStringList SubcommandLine::withArgumentsLast(const QStringList& args) const
{
    QStringList options, arguments;
    for (int i = 0; i < args.size(); ++i) {
        const QString& arg = args.at(i);
        if (arg == QLatin1String("--")) {
            arguments += args.mid(i + 1);
            break;
        }
        if (!arg.startsWith(QLatin1Char('-')) || arg == QLatin1String("-") || isNegativeNumber(arg)) {
            arguments.append(arg);
            continue;
        }
        options.append(arg);
        if (mValueOptions.contains(arg) && i + 1 < args.size())
            options.append(args.at(++i));
    }
    return options + QStringList{QStringLiteral("--")} + arguments;
}

bool SubcommandLine::parse(const QStringList& args, int minArguments, int maxArguments, int* status)
{
    if (!mParser.parse(QStringList{QStringLiteral("cabin-mediactl")} + withArgumentsLast(args))) {
        *status = fail(ToolOutput::parseError(mParser) + QStringLiteral(" (see cabin-mediactl %1 --help)").arg(mName));
        return false;
    }
    if (mParser.isSet(QStringLiteral("help"))) {
        say(stdout, helpText());
        *status = 0;
        return false;
    }
    const QString countError = argumentCountError(int(arguments().size()), minArguments, maxArguments);
    if (countError.isEmpty())
        return true;
    *status = fail(countError + QStringLiteral(" (see cabin-mediactl %1 --help)").arg(mName));
    return false;
}

QString SubcommandLine::argumentCountError(int count, int minArguments, int maxArguments) const
{
    if (count < minArguments)
        return mArgumentNames.value(count) + QStringLiteral(" is missing");
    if (count > maxArguments)
        return QStringLiteral("unexpected argument \"%1\"").arg(arguments().at(maxArguments));
    return QString();
}

bool SubcommandLine::number(const QString& what, const QString& text, qint64 min, qint64 max, qint64* value) const
{
    const QString problem = ShellNumber::problem(text, min, max, value);
    if (!problem.isEmpty())
        fail(what + QLatin1Char(' ') + problem);
    return problem.isEmpty();
}

int SubcommandLine::fail(const QString& text) const
{
    return MediaCtlSupport::fail(mName + QStringLiteral(": ") + text);
}

// Qt names the program by the path it was started with; the reader needs the subcommand.
QString SubcommandLine::helpText() const
{
    QString text = mParser.helpText();
    const QString program = QCoreApplication::arguments().constFirst();
    const qsizetype at = text.indexOf(program);
    if (at >= 0)
        text.replace(at, program.size(), QStringLiteral("cabin-mediactl [--bus ADDRESS] ") + mName);
    return (text + mNotes).trimmed();
}
