#pragma once

#include <QDBusConnection>
#include <QDBusMessage>
#include <QObject>
#include <QStringList>
#include <QVariant>

// The client end of the server's /DataValues object: read, list and set values by name, and
// follow their changes.
//
// Thread: main thread. Failure: every call returns false with error() set to the D-Bus error's
// one-line text and errorName() to its name.
class DataValuesClient : public QObject
{
    Q_OBJECT
public:
    explicit DataValuesClient(const QDBusConnection& connection, QObject* parent = nullptr);

    bool get(const QString& name, bool* valid, QVariant* value);
    bool list(QStringList* names);
    bool set(const QString& name, const QVariant& value);
    // Emits changed() for every Changed signal of the server from now on.
    bool subscribe();
    QString error() const { return mError; }
    QString errorName() const { return mErrorName; }
    // The server answers these calls from its main loop at once; longer than this, it is stuck.
    static constexpr int kTimeoutMs = 5000;

    // How a value prints: "-" when it has none, the server state pair as
    // "6,0 (Playing, NoError)", lists as "a,b", maps as "key=value" pairs, others as their text.
    static QString text(const QString& name, bool valid, const QVariant& value);
    static QString text(const QString& name, const QVariant& value);

signals:
    void changed(const QString& name, bool valid, const QVariant& value);

private slots:
    void onChanged(const QDBusMessage& message);

private:
    bool call(const QString& method, const QVariantList& arguments, QDBusMessage* reply);

    QDBusConnection mConnection;
    QString mError;
    QString mErrorName;
};
