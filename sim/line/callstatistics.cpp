#include "sim/line/callstatistics.h"

#include <QJsonArray>
#include <QJsonDocument>

namespace sim {

namespace {

constexpr double nsPerSecond = 1e9;

QString seconds(qint64 ns)
{
    return QString::asprintf("%.3f", static_cast<double>(ns) / nsPerSecond);
}

QString directionText(const char* name, int rate, const DirectionStatistics& direction, qint64 connectedNs)
{
    const double share =
        connectedNs > 0 ? 100.0 * static_cast<double>(direction.busyNs) / static_cast<double>(connectedNs) : 0;
    return QString::asprintf("  %s at %d bit/s: %lld bytes carried, %lld delivered, %lld lost, "
                             "busy %.3f s (%.1f %%), %lld bits flipped in %lld bytes",
                             name, rate, direction.bytesCarried, direction.bytesDelivered, direction.bytesLost,
                             static_cast<double>(direction.busyNs) / nsPerSecond, share, direction.bitsFlipped,
                             direction.bytesSpoiled);
}

QJsonObject directionJson(int rate, const DirectionStatistics& direction)
{
    return {
        {QStringLiteral("bitsPerSecond"), rate},
        {QStringLiteral("bytesCarried"), direction.bytesCarried},
        {QStringLiteral("bytesDelivered"), direction.bytesDelivered},
        {QStringLiteral("bytesLost"), direction.bytesLost},
        {QStringLiteral("busySeconds"), static_cast<double>(direction.busyNs) / nsPerSecond},
        {QStringLiteral("bitsFlipped"), direction.bitsFlipped},
        {QStringLiteral("bytesSpoiled"), direction.bytesSpoiled},
    };
}

} // namespace

QString CallStatistics::toText() const
{
    const QString to =
        called > 0 ? QStringLiteral("modem%1 (%2)").arg(called).arg(number) : QStringLiteral("'%1'").arg(number);
    const QString head = QStringLiteral("call %1: modem%2 -> %3").arg(call).arg(caller).arg(to);
    if (!connected)
        return head + QStringLiteral(", not connected after %1 s: %2").arg(seconds(waitedNs), end);
    return head +
           QStringLiteral(", connected after %1 s for %2 s: %3").arg(seconds(waitedNs), seconds(connectedNs), end) +
           QLatin1Char('\n') + directionText("forward ", line.rateForward, forward, connectedNs) + QLatin1Char('\n') +
           directionText("backward", line.rateBackward, backward, connectedNs);
}

QJsonObject CallStatistics::toJson() const
{
    return {
        {QStringLiteral("call"), call},
        {QStringLiteral("caller"), caller},
        {QStringLiteral("called"), called},
        {QStringLiteral("number"), number},
        {QStringLiteral("connected"), connected},
        {QStringLiteral("end"), end},
        {QStringLiteral("startedSeconds"), static_cast<double>(startedNs) / nsPerSecond},
        {QStringLiteral("waitedSeconds"), static_cast<double>(waitedNs) / nsPerSecond},
        {QStringLiteral("connectedSeconds"), static_cast<double>(connectedNs) / nsPerSecond},
        {QStringLiteral("line"), line.toString()},
        {QStringLiteral("forward"), directionJson(line.rateForward, forward)},
        {QStringLiteral("backward"), directionJson(line.rateBackward, backward)},
    };
}

QByteArray statisticsJson(const QVector<CallStatistics>& calls)
{
    QJsonArray array;
    for (const CallStatistics& call : calls)
        array.append(call.toJson());
    return QJsonDocument(QJsonObject{{QStringLiteral("calls"), array}}).toJson();
}

} // namespace sim
