#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QObject>
#include <QStringList>
#include <QTimer>

#include <functional>
#include <memory>
#include <vector>

class DataValue;
class QDataStream;

// The generic half of a status publisher: a set of named binary messages, each assembled from
// data values on demand and sent to subscribers (messagePublished(), which the framework turns
// into a bus signal). Subclasses declare their messages with addMessage() and report value
// changes with messageChanged(); this class decides when a message goes out:
// - a change publishes the message at once when it has not gone out within the last rate-limit
//   time, otherwise once at the end of that time, however many changes came in between;
// - a message with a frequency F above 0 is also published every F ms; 0 means on change only;
// - publishLowFrequency(), every low-frequency period, publishes the messages that have a change
//   not yet sent (a safety net for a change whose publication was held back);
// - publishNonBroadcastValues() publishes every message once (at start and when a client asks).
// Every path goes through the same rate limit, so no setting sends a message more than once per
// rate-limit time.
//
// Bodies: QDataStream version Qt_4_8, big-endian: qint32 0, qint32 count, the message and
// publisher identifiers as quint32 variants, then one variant per value (a null variant for an
// invalid value), each read under that value's own lock.
//
// Thread: main thread (timers and slots); value changes made on other threads arrive through
// queued connections. Owns its timers; does not own the data values.
class ServiceDataPublisher : public QObject
{
    Q_OBJECT
public:
    using Assembler = std::function<void(QDataStream&)>;

    ServiceDataPublisher(const QString& serviceName, int lowFrequencyMs, int rateLimitMs, QObject* parent = nullptr);
    ~ServiceDataPublisher() override;

    // What publishing has cost so far: messages and bytes sent, and the CPU time this object
    // spent noting changes, assembling and sending (for the shutdown report and benchmarks).
    struct Usage
    {
        quint64 messages = 0;
        quint64 bytes = 0;
        qint64 cpuNs = 0;
    };

    QString serviceName() const { return mServiceName; }
    Usage usage() const { return mUsage; }
    QStringList messageNames() const;
    // A freshly assembled body; false for an unknown message name.
    bool assemble(const QString& name, QByteArray* body) const;

    // Helpers for the assemblers.
    static void writeHeader(QDataStream& stream, quint32 messageId, quint32 publisherId, int valueCount);
    static void writeValue(QDataStream& stream, const DataValue& value);

public slots:
    void publishLowFrequency();
    void publishNonBroadcastValues();

signals:
    void messagePublished(const QString& name, const QByteArray& body);

protected:
    // Declares a message; frequencyMs 0 publishes it on change only.
    void addMessage(const QString& name, int frequencyMs, Assembler assembler);
    // A value of the message changed.
    void messageChanged(const QString& name);
    // Publishes the message now, or at the end of its rate-limit time.
    void publish(const QString& name);
    // Starts the periodic and low-frequency timers; call once the messages are declared.
    void startTimers();

private:
    struct Message;
    Message* find(const QString& name) const;
    void send(Message* message);

    const QString mServiceName;
    const int mRateLimitMs;
    std::vector<std::unique_ptr<Message>> mMessages;
    QTimer mLowFrequencyTimer;
    Usage mUsage;
};
