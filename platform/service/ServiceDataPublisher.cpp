#include "platform/service/ServiceDataPublisher.h"

#include "platform/datavalue/DataValue.h"
#include "platform/log/LogLine.h"

#include <QDataStream>
#include <QIODevice>

#include <ctime>

namespace {

qint64 threadCpuNs()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return qint64(now.tv_sec) * 1000000000 + now.tv_nsec;
}

// Adds the calling thread's CPU time over its own lifetime to a total.
class CpuCharge
{
public:
    explicit CpuCharge(qint64* total)
        : mTotal(total)
        , mStart(threadCpuNs())
    {
    }
    ~CpuCharge() { *mTotal += threadCpuNs() - mStart; }
    CpuCharge(const CpuCharge&) = delete;
    CpuCharge& operator=(const CpuCharge&) = delete;

private:
    qint64* mTotal;
    qint64 mStart;
};

} // namespace

struct ServiceDataPublisher::Message
{
    QString name;
    Assembler assembler;
    QTimer periodic;   // every frequency ms; idle for frequency 0
    QTimer held;       // single shot: the end of the rate-limit time after the last send
    QElapsedTimer sinceSent;   // invalid until the first send
    bool changed = false;      // a change not yet sent
};

ServiceDataPublisher::ServiceDataPublisher(const QString& serviceName, int lowFrequencyMs, int rateLimitMs, QObject* parent)
    : QObject(parent)
    , mServiceName(serviceName)
    , mRateLimitMs(qMax(0, rateLimitMs))
{
    mLowFrequencyTimer.setInterval(qMax(1, lowFrequencyMs));
    connect(&mLowFrequencyTimer, &QTimer::timeout, this, &ServiceDataPublisher::publishLowFrequency);
}

ServiceDataPublisher::~ServiceDataPublisher() = default;

QStringList ServiceDataPublisher::messageNames() const
{
    QStringList names;
    for (const auto& message : mMessages)
        names.append(message->name);
    return names;
}

bool ServiceDataPublisher::assemble(const QString& name, QByteArray* body) const
{
    const Message* message = find(name);
    if (!message)
        return false;
    body->clear();
    QDataStream stream(body, QIODevice::WriteOnly);
    // Subscribers decode with the stream format of their time; it is pinned, never the default.
    stream.setVersion(QDataStream::Qt_4_8);
    stream.setByteOrder(QDataStream::BigEndian);
    message->assembler(stream);
    return true;
}

void ServiceDataPublisher::writeHeader(QDataStream& stream, quint32 messageId, quint32 publisherId, int valueCount)
{
    stream << qint32(0) << qint32(valueCount + 2) << QVariant(messageId) << QVariant(publisherId);
}

void ServiceDataPublisher::writeValue(QDataStream& stream, const DataValue& value)
{
    DataValue::ConditionalLocker lock(&value);
    stream << (value.isValidNoLock() ? value.variantNoLock() : QVariant());
}

void ServiceDataPublisher::addMessage(const QString& name, int frequencyMs, Assembler assembler)
{
    auto message = std::make_unique<Message>();
    message->name = name;
    message->assembler = std::move(assembler);
    message->held.setSingleShot(true);
    // A coarse timer may fire a little early, and the rate limit is a promise.
    message->held.setTimerType(Qt::PreciseTimer);
    if (frequencyMs > 0)
        message->periodic.setInterval(frequencyMs);
    Message* raw = message.get();
    connect(&raw->periodic, &QTimer::timeout, this, [this, raw] { publish(raw->name); });
    connect(&raw->held, &QTimer::timeout, this, [this, raw] { publish(raw->name); });
    mMessages.push_back(std::move(message));
}

void ServiceDataPublisher::startTimers()
{
    for (const auto& message : mMessages)
        if (message->periodic.interval() > 0)
            message->periodic.start();
    mLowFrequencyTimer.start();
}

void ServiceDataPublisher::messageChanged(const QString& name)
{
    CpuCharge charge(&mUsage.cpuNs);
    Message* message = find(name);
    if (!message)
        return;
    message->changed = true;
    publish(name);
}

void ServiceDataPublisher::publish(const QString& name)
{
    Message* message = find(name);
    if (!message || message->held.isActive())
        return;
    const qint64 sinceSent = message->sinceSent.isValid() ? message->sinceSent.elapsed() : mRateLimitMs;
    if (sinceSent >= mRateLimitMs)
        send(message);
    else
        message->held.start(int(mRateLimitMs - sinceSent));
}

void ServiceDataPublisher::publishLowFrequency()
{
    for (const auto& message : mMessages)
        if (message->changed)
            publish(message->name);
}

void ServiceDataPublisher::publishNonBroadcastValues()
{
    for (const auto& message : mMessages)
        publish(message->name);
}

ServiceDataPublisher::Message* ServiceDataPublisher::find(const QString& name) const
{
    for (const auto& message : mMessages)
        if (message->name == name)
            return message.get();
    return nullptr;
}

void ServiceDataPublisher::send(Message* message)
{
    CpuCharge charge(&mUsage.cpuNs);
    QByteArray body;
    assemble(message->name, &body);
    message->changed = false;
    message->sinceSent.start();
    ++mUsage.messages;
    mUsage.bytes += quint64(body.size());
    emit messagePublished(message->name, body);
}
