#include "tools/mediactl/MediaCtlSupport.h"

#include "tools/mediactl/MediaCtl.h"

#include <QCommandLineParser>

namespace MediaCtlSupport {

void say(FILE* stream, const QString& text)
{
    std::fputs((text + QLatin1Char('\n')).toLocal8Bit().constData(), stream);
}

int fail(const QString& text)
{
    say(stderr, QStringLiteral("cabin-mediactl: ") + text);
    return MediaCtl::Failure;
}

bool parseSubcommand(QCommandLineParser* parser, const QString& name, const QStringList& args, int minPositional,
                     int maxPositional, int* result)
{
    parser->addHelpOption();
    if (!parser->parse(QStringList{QStringLiteral("cabin-mediactl ") + name} + args)) {
        *result = fail(name + QStringLiteral(": ") + parser->errorText());
        return false;
    }
    if (parser->isSet(QStringLiteral("help"))) {
        say(stdout, parser->helpText());
        *result = MediaCtl::True;
        return false;
    }
    const int count = int(parser->positionalArguments().size());
    if (count < minPositional || count > maxPositional) {
        *result = fail(name + QStringLiteral(": wrong number of arguments (see cabin-mediactl ") + name + QStringLiteral(" --help)"));
        return false;
    }
    return true;
}

QCommandLineOption jsonOption()
{
    return {QStringLiteral("json"), QStringLiteral("One JSON object per line: {\"name\":...,\"values\":{...}}, null for no value.")};
}

bool parseInt(const QString& text, int* value)
{
    bool ok = false;
    *value = text.toInt(&ok);
    return ok;
}

QVariant guessValue(const QString& text)
{
    if (text == QLatin1String("true") || text == QLatin1String("false"))
        return text == QLatin1String("true");
    bool ok = false;
    const int number = text.toInt(&ok);
    if (ok)
        return number;
    const double real = text.toDouble(&ok);
    return ok ? QVariant(real) : QVariant(text);
}

} // namespace MediaCtlSupport
