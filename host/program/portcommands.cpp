#include "host/program/portcommands.h"

#include "host/installation/hostsettings.h"
#include "host/installation/names.h"
#include "host/program/exitstatus.h"
#include "host/program/portwords.h"

namespace host {

namespace {

QString portText(const ComPortSettings& port)
{
    return QStringLiteral("%1  %2 baud, %3 data bits, parity %4, stop bits %5, flow control %6, init string '%7'%8")
        .arg(port.portName, QString::number(port.baudRate), wordOf(dataBitsWords, port.dataBits),
             wordOf(parityWords, port.parity), wordOf(stopBitsWords, port.stopBits),
             wordOf(flowControlWords, port.flowControl), displayName(port.initString),
             port.enabled ? QString() : QStringLiteral(", disabled"));
}

int findPort(const ChannelComSettings& settings, const QString& name)
{
    for (int i = 0; i < settings.ports.size(); ++i) {
        if (settings.ports.at(i).portName == name)
            return i;
    }
    return -1;
}

} // namespace

int portAdd(const CommandLine& given, CommandStreams& io)
{
    ComPortSettings port;
    port.portName = given.arguments().first();
    port.initString = given.value("init");
    port.enabled = !given.isSet("disabled");
    bool ok = false;
    port.baudRate = given.value("baud").toInt(&ok);
    if (!ok || port.baudRate <= 0)
        return given.wrongUsage(io, QStringLiteral("--baud needs a positive number"));
    if (!valueOf(flowControlWords, given.value("flow"), &port.flowControl))
        return given.wrongUsage(io, QStringLiteral("--flow is one of %1").arg(flowControlChoices()));
    if (!valueOf(dataBitsWords, given.value("data-bits"), &port.dataBits))
        return given.wrongUsage(io, QStringLiteral("--data-bits is one of %1").arg(dataBitsChoices()));
    if (!valueOf(parityWords, given.value("parity"), &port.parity))
        return given.wrongUsage(io, QStringLiteral("--parity is one of %1").arg(parityChoices()));
    if (!valueOf(stopBitsWords, given.value("stop-bits"), &port.stopBits))
        return given.wrongUsage(io, QStringLiteral("--stop-bits is one of %1").arg(stopBitsChoices()));
    ChannelComSettings settings;
    const QString error = loadComSettings(&settings);
    if (!error.isEmpty())
        return fail(io, error);
    const int index = findPort(settings, port.portName);
    if (index < 0)
        settings.ports.append(port);
    else
        settings.ports[index] = port;
    const QString saveError = saveComSettings(settings);
    return statusOf(io, saveError);
}

int portList(const CommandLine&, CommandStreams& io)
{
    ChannelComSettings settings;
    const QString error = loadComSettings(&settings);
    if (!error.isEmpty())
        return fail(io, error);
    for (const ComPortSettings& port : qAsConst(settings.ports))
        io.out << portText(port) << Qt::endl;
    io.out << "packets of at most " << settings.packetSize << " bytes" << Qt::endl;
    return exitDone;
}

int portRemove(const CommandLine& given, CommandStreams& io)
{
    ChannelComSettings settings;
    QString error = loadComSettings(&settings);
    if (!error.isEmpty())
        return fail(io, error);
    const QString name = given.arguments().first();
    const int index = findPort(settings, name);
    if (index < 0)
        return fail(
            io, QStringLiteral("no port %1 is defined: \"transport-host port list\" shows those that are").arg(name));
    settings.ports.removeAt(index);
    error = saveComSettings(settings);
    return statusOf(io, error);
}

int portPacketSize(const CommandLine& given, CommandStreams& io)
{
    bool ok = false;
    const int bytes = given.arguments().first().toInt(&ok);
    if (!ok || bytes < ChannelComSettings::smallestPacketSize || bytes > ChannelComSettings::largestPacketSize)
        return given.wrongUsage(io, QStringLiteral("a packet has %1 bytes").arg(packetSizeRange()));
    ChannelComSettings settings;
    QString error = loadComSettings(&settings);
    if (!error.isEmpty())
        return fail(io, error);
    settings.packetSize = bytes;
    error = saveComSettings(settings);
    return statusOf(io, error);
}

} // namespace host
