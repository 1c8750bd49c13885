#pragma once

#include <QEventLoop>
#include <QObject>
#include <QVariant>

class DataValuesClient;

// How a load goes, on one terminal line rewritten in place: the server's state and how much
// of the item is buffered ("1,0 (Loading, NoError), buffered 35 %"), until the item is ready to play
// (Loaded), plays, or the load fails or is stopped; then the line is ended.
//
// Thread: main thread; run() runs an event loop of its own. Owns nothing; the values client
// must outlive it. Failure: run() answers the failure status when the client cannot follow
// the values (after saying why), the false status when the load ended without the item.
class LoadProgress : public QObject
{
    Q_OBJECT
public:
    explicit LoadProgress(DataValuesClient* values);

    int run();

private:
    void changed(const QString& name, bool valid, const QVariant& value);
    bool read(const QString& name);
    void show();
    bool isOver() const;

    DataValuesClient* mValues;
    QEventLoop mLoop;
    QVariantList mState;    // [state, error] as the server publishes it; empty while unknown
    QVariant mProgress;     // the buffered fraction, null while unknown
    QString mShown;         // the line on the terminal now
};
