#pragma once

#include <QObject>
#include <QTimer>

// Hands the pages that freed memory leaves behind back to the system, every few seconds, on
// the main thread. A burst of work (a flood of requests, pipelines torn down) frees its memory
// into the allocator, which keeps the pages for reuse: the heap in use falls back while the
// footprint stays where the burst took it. A trim of this server's heap takes well under a
// millisecond.
//
// Thread: created, started and destroyed on the main thread; trims from its event loop.
// Owns its timer. No locks (the allocator takes its own).
class HeapTrimmer : public QObject
{
    Q_OBJECT
public:
    explicit HeapTrimmer(QObject* parent = nullptr);

    void start();

private slots:
    void trim();

private:
    QTimer mTimer;
};
