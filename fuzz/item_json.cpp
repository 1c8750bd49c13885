// Fuzz target: hostile text as the media item a client hands to loadMedia, through
// MediaPlaybackMetadata. Beyond memory errors and undefined behaviour, which the sanitizers
// catch: any text gives a valid record, and the record is a fixed point of writing and reading
// (what toJSON() writes reads back as the same record, and writes as the same text), so that an
// item the server hands back to a client, or keeps, means what the client sent.

#include "fuzz/FuzzCheck.h"
#include "media_server/MediaPlaybackMetadata.h"

#include <QVariantList>

using MediaV2::MediaPlaybackMetadata;

namespace {

QVariantList fields(const MediaPlaybackMetadata& m)
{
    return {m.bitrate, m.bufferBytes, m.bufferMs, m.startPosition, m.duration, m.cacheKey, m.url, m.id, m.statsCategory,
            m.source, m.pauseWhenBuffered, m.liveStream, m.valid, m.shouldCache, m.isExplicit};
}

} // namespace

// The bus carries the item as a string, which arrives as UTF-8: the bytes are decoded the
// same way.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QString json = QString::fromUtf8(reinterpret_cast<const char*>(data), qsizetype(size));
    const MediaPlaybackMetadata sent(json);
    fuzzCheck(sent.valid, "a record read from text is not valid");
    const QString written = sent.toJSON();
    const MediaPlaybackMetadata readBack(written);
    fuzzCheck(fields(readBack) == fields(sent), "toJSON() read back is not the same record");
    fuzzCheck(readBack.toJSON() == written, "toJSON() read back is not written as the same text");
    return 0;
}
