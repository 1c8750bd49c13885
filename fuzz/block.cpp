// Fuzz target: hostile bytes as one title block through MetadataExtractor::convertMetadataBlock,
// under each "media_fifo/title_charset". Beyond memory errors and undefined behaviour, which
// the sanitizers catch: every pair is one "key=value" part of the text, so no key or value holds
// a ";", an "=" or the NUL that ends the text, and there are no more pairs than parts; "auto"
// gives what one of the two decodings gives.

#include "fuzz/FuzzCheck.h"
#include "media_server/MetadataExtractor.h"
#include "platform/config/ConfigStore.h"

using MediaV2::MetadataExtractor;

namespace {

bool isOnePart(const QString& text)
{
    return !text.contains(QLatin1Char(';')) && !text.contains(QLatin1Char('=')) && !text.contains(QChar(0));
}

QHash<QString, QString> convertAs(const QString& charset, const QByteArray& block)
{
    QString error;
    fuzzCheck(ConfigStore::instance()->set(QStringLiteral("media_fifo/title_charset"), charset, &error), "the charset setting was refused");
    QHash<QString, QString> pairs;
    MetadataExtractor::convertMetadataBlock(block, pairs);
    fuzzCheck(pairs.size() <= block.count(';') + 1, "more pairs than parts");
    for (auto it = pairs.cbegin(); it != pairs.cend(); ++it)
        fuzzCheck(isOnePart(it.key()) && isOnePart(it.value()), "a key or value spans a separator");
    return pairs;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray block(reinterpret_cast<const char*>(data), qsizetype(size));
    const QHash<QString, QString> latin1 = convertAs(QStringLiteral("latin1"), block);
    const QHash<QString, QString> utf8 = convertAs(QStringLiteral("utf8"), block);
    const QHash<QString, QString> automatic = convertAs(QStringLiteral("auto"), block);
    fuzzCheck(automatic == latin1 || automatic == utf8, "auto decodes as neither Latin-1 nor UTF-8");
    return 0;
}
