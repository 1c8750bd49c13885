// Fuzz target: hostile bytes as the download buffer's info file, through
// StreamingMediaBufferInfo::parse(). Beyond memory errors and undefined behaviour, which the
// sanitizers catch: a file accepted for its own cache key describes a data file that can exist
// (counts not negative, written within a known length, complete only when all is written),
// and written back with toJson() it reads again as the same info and the same text; the same
// file is never accepted for another key; a refused file says why and leaves the caller's
// info alone.

#include "fuzz/FuzzCheck.h"
#include "media_server/StreamingMediaBufferInfo.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QVariantList>

using MediaV2::StreamingMediaBufferInfo;
using Read = StreamingMediaBufferInfo::Read;

namespace {

QVariantList fields(const StreamingMediaBufferInfo& info)
{
    return {info.complete, info.written, info.length, info.cachekey, info.url};
}

// What a caller holds before the read; a refused file must leave it so.
StreamingMediaBufferInfo untouched()
{
    StreamingMediaBufferInfo info;
    info.complete = true, info.written = 7, info.length = 7;
    info.cachekey = QStringLiteral("untouched"), info.url = QStringLiteral("http://untouched/");
    return info;
}

Read parseAs(const QByteArray& json, const QString& key, StreamingMediaBufferInfo* info)
{
    *info = untouched();
    QString problem;
    const Read result = StreamingMediaBufferInfo::parse(json, key, info, &problem);
    fuzzCheck(result == Read::Valid || result == Read::Damaged, "parsing text answered Absent");
    fuzzCheck((result == Read::Damaged) == !problem.isEmpty(), "a refusal does not say why, or an acceptance does");
    if (result == Read::Damaged)
        fuzzCheck(fields(*info) == fields(untouched()), "a refused file changed the caller's info");
    return result;
}

bool describesADataFile(const StreamingMediaBufferInfo& info)
{
    return info.written >= 0 && info.length >= 0 && (info.length == 0 || info.written <= info.length)
        && (!info.complete || info.written == info.length);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray json(reinterpret_cast<const char*>(data), qsizetype(size));
    // The key the file names for itself, so that the fuzzer need not guess it to get past the
    // key check; a file that names none is read for "".
    const QString ownKey = QJsonDocument::fromJson(json).object().value(QLatin1String("cachekey")).toString();
    StreamingMediaBufferInfo info;
    fuzzCheck(parseAs(json, ownKey + QLatin1Char('x'), &info) == Read::Damaged, "a file was accepted for another key");
    if (parseAs(json, ownKey, &info) == Read::Damaged)
        return 0;
    fuzzCheck(info.cachekey == ownKey, "an accepted file is not for the key asked for");
    fuzzCheck(describesADataFile(info), "an accepted file describes no possible data file");
    const QByteArray written = info.toJson();
    StreamingMediaBufferInfo readBack;
    fuzzCheck(parseAs(written, ownKey, &readBack) == Read::Valid, "what toJson() wrote is refused");
    fuzzCheck(fields(readBack) == fields(info), "what toJson() wrote reads back as other info");
    fuzzCheck(readBack.toJson() == written, "what toJson() wrote is written back as other text");
    return 0;
}
