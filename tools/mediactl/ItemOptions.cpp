#include "tools/mediactl/ItemOptions.h"

#include "media_server/MediaPlaybackMetadata.h"
#include "platform/core/TJson.h"
#include "tools/mediactl/SubcommandLine.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <climits>

namespace {

struct KeyOption
{
    const char* key;
    const char* option;
    bool number;
};

// The options that set a key of the item to play (the URL is the argument).
const KeyOption kKeyOptions[] = {
    {"cachekey", "cache-key", false},  {"should_cache", "should-cache", false}, {"live-stream", "live", false},
    {"startposition", "start", true},  {"duration", "duration", true},         {"buffer-ms", "buffer-ms", true},
    {"buffer-bytes", "buffer-bytes", true},
};

QString optionForKey(const QString& key)
{
    if (key == QLatin1String("url"))
        return QStringLiteral("URL");
    for (const KeyOption& keyOption : kKeyOptions)
        if (key == QLatin1String(keyOption.key))
            return QStringLiteral("--") + QLatin1String(keyOption.option);
    return QString();
}

QString kindOf(const QJsonValue& value)
{
    if (value.isBool())
        return QStringLiteral("true/false");
    return value.isString() ? QStringLiteral("text") : QStringLiteral("number");
}

} // namespace

QList<QCommandLineOption> ItemOptions::options()
{
    return {
        {"cache-key", "Cache key of the item (empty: not cached).", "K"},
        {"should-cache", "Keep the finished download in the stream cache."},
        {"live", "The item is a live stream."},
        {"start", "Start position in milliseconds.", "MS"},
        {"duration", "Duration in milliseconds.", "MS"},
        {"buffer-ms", "Milliseconds to buffer before playing.", "MS"},
        {"buffer-bytes", "Bytes to buffer before playing.", "N"},
        {"on-deck", "URL of the item expected next.", "URL"},
        {"on-deck-cache-key", "Cache key of the item expected next.", "K"},
        {"json", "The item as a raw JSON text (the other item options are ignored).", "TEXT"},
        {"on-deck-json", "The next item as a raw JSON text.", "TEXT"},
    };
}

// Read from the server's own record, so the table lists exactly the keys the server knows.
QString ItemOptions::keysHelp()
{
    const QJsonObject keys = QJsonDocument::fromJson(MediaV2::MediaPlaybackMetadata().toJSON().toUtf8()).object();
    QString text = QStringLiteral("Item JSON keys the server reads (a key left out reads as 0, \"\" or false;\n"
                                  "numbers are whole, 0 to %1):\n").arg(INT_MAX);
    for (auto it = keys.constBegin(); it != keys.constEnd(); ++it) {
        const QString option = optionForKey(it.key());
        text += QStringLiteral("  %1%2\n").arg(it.key(), -19).arg(option.isEmpty() ? kindOf(it.value()) : QStringLiteral("%1%2").arg(kindOf(it.value()), -12).arg(option));
    }
    return text;
}

bool ItemOptions::itemJson(const SubcommandLine& line, const QString& url, QString* json)
{
    if (line.isSet(QStringLiteral("json"))) {
        *json = line.value(QStringLiteral("json"));
        return true;
    }
    QVariantMap item;
    item.insert(QStringLiteral("url"), url);
    item.insert(QStringLiteral("cachekey"), line.value(QStringLiteral("cache-key")));
    item.insert(QStringLiteral("should_cache"), line.isSet(QStringLiteral("should-cache")));
    item.insert(QStringLiteral("live-stream"), line.isSet(QStringLiteral("live")));
    for (const KeyOption& keyOption : kKeyOptions) {
        const QString option = QLatin1String(keyOption.option);
        qint64 value = 0;
        if (!keyOption.number || !line.isSet(option))
            continue;
        if (!line.number(QStringLiteral("--") + option, line.value(option), 0, INT_MAX, &value))
            return false;
        item.insert(QLatin1String(keyOption.key), value);
    }
    *json = QString::fromUtf8(TJson::Serializer::serialize(item));
    return true;
}

QString ItemOptions::onDeckJson(const SubcommandLine& line)
{
    if (line.isSet(QStringLiteral("on-deck-json")))
        return line.value(QStringLiteral("on-deck-json"));
    QVariantMap item;
    item.insert(QStringLiteral("url"), line.value(QStringLiteral("on-deck")));
    item.insert(QStringLiteral("cachekey"), line.value(QStringLiteral("on-deck-cache-key")));
    return QString::fromUtf8(TJson::Serializer::serialize(item));
}
