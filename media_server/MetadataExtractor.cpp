#include "media_server/MetadataExtractor.h"

#include "platform/config/ConfigStringValue.h"
#include "platform/log/LogLine.h"
#include "platform/log/Logger.h"

#include <QStringList>
#include <QUtf8StringView>

#include <cstring>

namespace MediaV2 {

namespace {

// How titles are decoded: "latin1" (what the protocol meant), "utf8", or "auto" (UTF-8 when
// the bytes are valid UTF-8). Latin-1 by default so that a station's accented titles never
// come out as replacement characters; "auto" suits most stations today.
ConfigStringValue sTitleCharset("media_fifo/title_charset", QStringLiteral("latin1"),
    "how in-stream titles are decoded: latin1, utf8 or auto (UTF-8 when valid)");

QString decodeTitleText(const QByteArray& bytes)
{
    const QString charset = sTitleCharset.value();
    if (charset == QLatin1String("utf8"))
        return QString::fromUtf8(bytes);
    if (charset == QLatin1String("auto") && QUtf8StringView(bytes).isValidUtf8())
        return QString::fromUtf8(bytes);
    return QString::fromLatin1(bytes);
}

} // namespace

void MetadataExtractor::setMetadataInterval(int interval)
{
    if (interval <= 0) {
        LOG_ASSERT(interval > 0, QStringLiteral("setMetadataInterval: invalid interval %1").arg(interval));
        return;
    }
    if (mInterval == 0)
        mUntilBlock = interval;   // the first block follows the first interval of audio
    mInterval = interval;
    LOG_INFO << "[MetadataExtractor] setMetadataInterval: " << interval;
}

// Blocks sit at fixed distances in the audio, so the reader jumps from one length byte to the
// next; a block cut by the chunk's end continues at the start of the next chunk. Where the next
// length byte lies is carried over as a distance, not derived from the audio count: a chunk
// that ends exactly before a length byte and one that ends exactly after a block have the
// same count modulo the interval, yet the next length byte is at 0 in the one and at the
// interval in the other. Each run of audio is moved once, to where the kept bytes end, so a
// chunk with several blocks costs no more than one copy of itself.
QHash<QString, QString> MetadataExtractor::extract(QByteArray& data)
{
    QHash<QString, QString> result;
    if (mInterval == 0)
        return result;
    if (mRemaining == 0 && mUntilBlock < 0) {
        LOG_ASSERT(mUntilBlock >= 0, QStringLiteral("extractMetadata(): cursor is negative: %1").arg(mUntilBlock));
        return result;
    }
    char* bytes = data.data();
    const qint64 size = data.size();
    qint64 read = 0;
    qint64 kept = 0;
    while (read < size) {
        if (mRemaining == 0 && mUntilBlock > 0) {
            const qint64 run = qMin(mUntilBlock, size - read);
            std::memmove(bytes + kept, bytes + read, size_t(run));
            kept += run;
            read += run;
            mUntilBlock -= run;
            continue;
        }
        if (mRemaining == 0) {
            mRemaining = int(quint8(bytes[read++])) * 16;
            if (mRemaining == 0) {
                mUntilBlock = mInterval;   // an empty block: nothing new to say
                continue;
            }
        }
        const qint64 take = qMin<qint64>(mRemaining, size - read);
        mBlock.append(bytes + read, take);
        read += take;
        mRemaining -= int(take);
        if (mRemaining == 0) {
            convertMetadataBlock(mBlock, result);
            mBlock.clear();
            mUntilBlock = mInterval;
        }
    }
    data.truncate(kept);
    mAudioBytes += quint64(kept);
    return result;
}

void MetadataExtractor::convertMetadataBlock(const QByteArray& block, QHash<QString, QString>& out)
{
    const int end = block.indexOf('\0');
    const QString text = decodeTitleText(end < 0 ? block : block.left(end)).trimmed();
    for (const QString& part : text.split(QLatin1Char(';'))) {
        const QStringList pieces = part.split(QLatin1Char('='));
        if (pieces.size() != 2)
            continue;
        QString value = pieces.at(1);
        if (value.startsWith(QLatin1Char('\'')) && value.endsWith(QLatin1Char('\'')))
            value = value.size() < 3 ? QString() : value.mid(1, value.size() - 2);
        out.insert(pieces.at(0), value);
    }
}

namespace {

QByteArray lengthPrefixed(const QByteArray& text)
{
    QByteArray block = text;
    block.append(QByteArray((16 - block.size() % 16) % 16, '\0'));
    return char(block.size() / 16) + block;
}

} // namespace

bool MetadataExtractor::test()
{
    const int interval = 16;
    const QByteArray audio(interval, 'a');
    const QByteArray stream = audio + lengthPrefixed("StreamTitle='Test';") + audio + char(0) + audio
                              + lengthPrefixed("StreamTitle='Another';") + audio;
    bool passed = true;
    for (int chunkSize : {1, 7, 16, 17, 40}) {   // no chunk completes both titles
        MetadataExtractor extractor;
        extractor.setMetadataInterval(interval);
        QByteArray kept;
        QStringList titles;
        for (int at = 0; at < stream.size(); at += chunkSize) {
            QByteArray chunk = stream.mid(at, chunkSize);
            const QHash<QString, QString> pairs = extractor.extract(chunk);
            if (pairs.contains(QStringLiteral("StreamTitle")))
                titles.append(pairs.value(QStringLiteral("StreamTitle")));
            kept += chunk;
        }
        passed = passed && kept == audio + audio + audio + audio
                 && titles == QStringList{QStringLiteral("Test"), QStringLiteral("Another")};
    }
    LOG_ASSERT(passed, QStringLiteral("MetadataExtractor self-test failed"));
    LOG_INFO << "done";
    return passed;
}

} // namespace MediaV2
