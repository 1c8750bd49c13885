// Round-trip latency of the media service over D-Bus: N "ServiceStatus" calls to the server
// beside N calls of the bus daemon's own GetId (the floor: a bare round trip through the same
// bus), one client, one call at a time.
//
// Usage: bench-service-latency BUS_ADDRESS [CALLS]

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QElapsedTimer>

#include <algorithm>
#include <cstdio>
#include <vector>

namespace {

struct Figures
{
    double medianUs = 0;
    double p99Us = 0;
    int failures = 0;
};

Figures measure(QDBusConnection& bus, const QDBusMessage& call, int count)
{
    std::vector<qint64> nanos;
    nanos.reserve(size_t(count));
    Figures figures;
    QElapsedTimer timer;
    for (int i = 0; i < count; ++i) {
        timer.start();
        const QDBusMessage reply = bus.call(call, QDBus::Block, 5000);
        nanos.push_back(timer.nsecsElapsed());
        if (reply.type() != QDBusMessage::ReplyMessage)
            ++figures.failures;
    }
    std::sort(nanos.begin(), nanos.end());
    figures.medianUs = nanos[nanos.size() / 2] / 1000.0;
    figures.p99Us = nanos[std::min(nanos.size() - 1, nanos.size() * 99 / 100)] / 1000.0;
    return figures;
}

void print(const char* what, const Figures& figures)
{
    std::printf("%s: median %.1f us, p99 %.1f us, failures %d\n", what, figures.medianUs, figures.p99Us, figures.failures);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (argc < 2) {
        std::fprintf(stderr, "usage: bench-service-latency BUS_ADDRESS [CALLS]\n");
        return 2;
    }
    const int calls = argc > 2 ? std::max(1, std::atoi(argv[2])) : 10000;
    QDBusConnection bus = QDBusConnection::connectToBus(QString::fromLocal8Bit(argv[1]), QStringLiteral("bench"));
    if (!bus.isConnected()) {
        std::fprintf(stderr, "bench-service-latency: cannot reach %s\n", argv[1]);
        return 2;
    }
    const QDBusMessage status = QDBusMessage::createMethodCall(
        QStringLiteral("com.kelvramotors.MediaServer2"), QStringLiteral("/MediaServer2"),
        QStringLiteral("com.kelvramotors.MediaServer2"), QStringLiteral("ServiceStatus"));
    const QDBusMessage getId = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("GetId"));
    // One short warm-up of each, so connection set-up is not measured.
    measure(bus, status, 100);
    measure(bus, getId, 100);
    const Figures service = measure(bus, status, calls);
    const Figures floor = measure(bus, getId, calls);
    std::printf("calls: %d each\n", calls);
    print("ServiceStatus", service);
    print("GetId (floor)", floor);
    std::printf("service: %.1f us vs %.1f us (ratio %.2f)\n", service.medianUs, floor.medianUs, service.medianUs / floor.medianUs);
    QDBusConnection::disconnectFromBus(QStringLiteral("bench"));
    return service.failures + floor.failures == 0 ? 0 : 1;
}
