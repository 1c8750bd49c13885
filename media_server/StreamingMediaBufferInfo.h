#pragma once

#include <QByteArray>
#include <QString>

namespace MediaV2 {

// What the download buffer knows about one item's data file, kept beside it as a small JSON
// info file so that a later start resumes the download or finds the item complete: exactly the
// members "complete", "written", "length", "cachekey" and "url".
//
// The file can be cut short by a power cut, edited by hand, or belong to another key whose hash
// collides: read() accepts it only when every member is there with its type, the counts are
// sane (0 <= written <= length once the length is known) and the key is the one asked for.
// Anything else is "damaged", which the buffer treats as no info file at all (one log line, the
// download starts over) rather than trusting a wrong offset.
//
// Thread: any (a value; read() does one small file read).
struct StreamingMediaBufferInfo
{
    enum class Read { Absent, Valid, Damaged };

    bool complete = false;
    qint64 written = 0;
    qint64 length = 0;
    QString cachekey;
    QString url;

    QByteArray toJson() const;
    // Parses `json` as the info of `key`; on Damaged, *problem says what is wrong.
    static Read parse(const QByteArray& json, const QString& key, StreamingMediaBufferInfo* info, QString* problem);
    static Read read(const QString& path, const QString& key, StreamingMediaBufferInfo* info, QString* problem);
};

} // namespace MediaV2
