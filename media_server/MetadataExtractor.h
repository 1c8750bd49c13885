#pragma once

#include <QByteArray>
#include <QHash>
#include <QString>

namespace MediaV2 {

// Cuts the interleaved title blocks out of a live stream asked for with "Icy-MetaData: 1": after
// every `interval` audio bytes the station sends one length byte and length x 16 bytes of
// "Key='value';" text. extract() is fed every downloaded chunk in order, removes the length
// bytes and blocks from it in place (so only audio reaches the decoder, whatever the chunk
// boundaries), and answers the pairs of every block that completed in that chunk.
//
// The block parse is deliberately simple: parts split at ";", pairs at "="; a pair with an "="
// inside its quoted value is dropped, a ";" inside one cuts the value. Titles are decoded as
// "media_fifo/title_charset" says: Latin-1 by default, UTF-8, or "auto" (UTF-8 when the bytes
// are valid UTF-8, else Latin-1), because many stations send UTF-8 without saying so.
//
// Thread: a plain value, used by one thread at a time (the live-stream FIFO's, the main thread).
// Failure: an invalid interval or an impossible cursor is a LOG_ASSERT and leaves the object
// and the chunk unchanged; a block cut off by the end of the stream is dropped with the object.
class MetadataExtractor
{
public:
    MetadataExtractor() = default;

    // Audio bytes between two blocks (the station's "icy-metaint"); 0 until set = pass through.
    void setMetadataInterval(int interval);
    QHash<QString, QString> extract(QByteArray& data);
    static void convertMetadataBlock(const QByteArray& block, QHash<QString, QString>& out);
    // Feeds built streams with two titles through extract() in odd chunk sizes; true when both
    // titles come out and only the audio stays.
    static bool test();

    quint64 audioBytes() const { return mAudioBytes; }

private:
    int mInterval = 0;
    int mRemaining = 0;        // bytes of the current block still to come; 0 = not inside one
    quint64 mAudioBytes = 0;   // audio bytes passed through (blocks not counted)
    qint64 mUntilBlock = 0;    // audio bytes before the next length byte, when not inside a block
    QByteArray mBlock;         // the block being assembled across chunks
};

} // namespace MediaV2
