#pragma once

#include "media_server/StreamingMediaBuffer.h"

namespace MediaV2 {

// Downloads the on-deck item (the one expected to play next) into the same files a
// StreamingMediaBuffer would use for it, so that when the item becomes current it is found
// complete on disk or in the stream cache. Nothing plays from it and nobody watches its
// progress: it makes one attempt, without retries or a connectivity wait, and ends in Finished
// or Failed, then emits finished().
//
// Decisions: stop() keeps the partial data file and writes its info file, so a later buffer
// for the same key resumes where the preload stopped (the buffer's start() keeps the on-deck
// item's files when it cleans the folder). A failed preload still hands its key to the stream
// cache, with an empty description, so the cache keeps nothing partial; its info file is
// written too, for the same resume.
//
// Thread: main thread only, like its base. Owns what its base owns. Failure: one log line and
// the state Failed; write errors are only logged (and the download then ends as failed).
class StreamingMediaPreloader : public StreamingMediaBuffer
{
    Q_OBJECT
public:
    StreamingMediaPreloader(const MediaPlaybackMetadata& metadata, StreamCache* streamCache);

signals:
    void finished();

public slots:
    void start() override;
    void stop() override;
    void downloadComplete(NetDownloader* nd, NetDownloader::Status status) override;
    void dataWritten(qint64 bytes, QString error) override;

protected:
    void completionWritten(bool allWritten) override;

private:
    void failPreload(const QString& error);
};

} // namespace MediaV2
