#pragma once

#include <QCommandLineParser>

// The options of `cabin-mediactl load` and the two media item JSON texts they make: the item
// to play now and the item expected next (on deck). --json and --on-deck-json pass raw texts.
class ItemOptions
{
public:
    void addTo(QCommandLineParser* parser);
    // False, with *error, when a number option is not a number.
    bool itemJson(const QCommandLineParser& parser, const QString& url, QString* json, QString* error) const;
    bool onDeckJson(const QCommandLineParser& parser, QString* json, QString* error) const;

private:
    static bool putNumber(const QCommandLineParser& parser, const QString& option, const QString& key,
                          QVariantMap* item, QString* error);
};
