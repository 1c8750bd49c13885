// Round-trip latency of the media service over D-Bus: N "ServiceStatus" calls to the server
// beside N calls of the bus daemon's own GetId (the floor: a bare round trip through the same
// bus), one client, one call at a time, the two kinds alternating.
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

qint64 timeCall(QDBusConnection& bus, const QDBusMessage& call, int* failures)
{
    QElapsedTimer timer;
    timer.start();
    const QDBusMessage reply = bus.call(call, QDBus::Block, 5000);
    const qint64 nanos = timer.nsecsElapsed();
    if (reply.type() != QDBusMessage::ReplyMessage)
        ++*failures;
    return nanos;
}

Figures figuresOf(std::vector<qint64> nanos, int failures)
{
    std::sort(nanos.begin(), nanos.end());
    Figures figures;
    figures.medianUs = nanos[nanos.size() / 2] / 1000.0;
    figures.p99Us = nanos[std::min(nanos.size() - 1, nanos.size() * 99 / 100)] / 1000.0;
    figures.failures = failures;
    return figures;
}

// The two kinds of call alternate, so both meet the same machine load and CPU clock.
void measure(QDBusConnection& bus, const QDBusMessage& call, const QDBusMessage& floorCall, int count,
             Figures* callFigures, Figures* floorFigures)
{
    std::vector<qint64> callNanos, floorNanos;
    callNanos.reserve(size_t(count));
    floorNanos.reserve(size_t(count));
    int callFailures = 0, floorFailures = 0;
    for (int i = 0; i < count; ++i) {
        callNanos.push_back(timeCall(bus, call, &callFailures));
        floorNanos.push_back(timeCall(bus, floorCall, &floorFailures));
    }
    *callFigures = figuresOf(callNanos, callFailures);
    *floorFigures = figuresOf(floorNanos, floorFailures);
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
    Figures service, floor;
    measure(bus, status, getId, 100, &service, &floor);   // warm-up: connection set-up is not measured
    measure(bus, status, getId, calls, &service, &floor);
    std::printf("calls: %d each\n", calls);
    print("ServiceStatus", service);
    print("GetId (floor)", floor);
    std::printf("service: %.1f us vs %.1f us (ratio %.2f)\n", service.medianUs, floor.medianUs, service.medianUs / floor.medianUs);
    QDBusConnection::disconnectFromBus(QStringLiteral("bench"));
    return service.failures + floor.failures == 0 ? 0 : 1;
}
