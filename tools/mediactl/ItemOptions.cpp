#include "tools/mediactl/ItemOptions.h"

#include "platform/core/TJson.h"

void ItemOptions::addTo(QCommandLineParser* parser)
{
    parser->addOptions({
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
    });
}

bool ItemOptions::putNumber(const QCommandLineParser& parser, const QString& option, const QString& key,
                            QVariantMap* item, QString* error)
{
    if (!parser.isSet(option))
        return true;
    bool ok = false;
    const qlonglong value = parser.value(option).toLongLong(&ok);
    if (!ok) {
        *error = QStringLiteral("--%1 expects a number, got \"%2\"").arg(option, parser.value(option));
        return false;
    }
    item->insert(key, value);
    return true;
}

bool ItemOptions::itemJson(const QCommandLineParser& parser, const QString& url, QString* json, QString* error) const
{
    if (parser.isSet(QStringLiteral("json"))) {
        *json = parser.value(QStringLiteral("json"));
        return true;
    }
    QVariantMap item;
    item.insert(QStringLiteral("url"), url);
    item.insert(QStringLiteral("cachekey"), parser.value(QStringLiteral("cache-key")));
    item.insert(QStringLiteral("should_cache"), parser.isSet(QStringLiteral("should-cache")));
    item.insert(QStringLiteral("live-stream"), parser.isSet(QStringLiteral("live")));
    if (!putNumber(parser, QStringLiteral("start"), QStringLiteral("startposition"), &item, error)
        || !putNumber(parser, QStringLiteral("duration"), QStringLiteral("duration"), &item, error)
        || !putNumber(parser, QStringLiteral("buffer-ms"), QStringLiteral("buffer-ms"), &item, error)
        || !putNumber(parser, QStringLiteral("buffer-bytes"), QStringLiteral("buffer-bytes"), &item, error))
        return false;
    *json = QString::fromUtf8(TJson::Serializer::serialize(item));
    return true;
}

bool ItemOptions::onDeckJson(const QCommandLineParser& parser, QString* json, QString*) const
{
    if (parser.isSet(QStringLiteral("on-deck-json"))) {
        *json = parser.value(QStringLiteral("on-deck-json"));
        return true;
    }
    QVariantMap item;
    item.insert(QStringLiteral("url"), parser.value(QStringLiteral("on-deck")));
    item.insert(QStringLiteral("cachekey"), parser.value(QStringLiteral("on-deck-cache-key")));
    *json = QString::fromUtf8(TJson::Serializer::serialize(item));
    return true;
}
