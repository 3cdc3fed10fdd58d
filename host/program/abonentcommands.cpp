#include "host/program/abonentcommands.h"

#include "common/global.h"
#include "host/installation/abonentbook.h"
#include "host/installation/comrecords.h"
#include "host/installation/hostsettings.h"
#include "host/installation/keytext.h"
#include "host/installation/names.h"
#include "host/program/exitstatus.h"

#include <algorithm>
#include <functional>

namespace host {

namespace {

AbonentBook ourBook()
{
    return AbonentBook(Global::abonentsSettingsFilePath());
}

QString notKnown(const QString& name)
{
    return QStringLiteral("no abonent '%1' is known: \"transport-host abonent list\" shows those that are")
        .arg(displayName(name));
}

void notePorts(const QStringList& ports, CommandStreams& io)
{
    ChannelComSettings settings;
    if (!loadComSettings(&settings).isEmpty())
        return;
    for (const QString& port : ports) {
        const bool isDefined = std::any_of(settings.ports.cbegin(), settings.ports.cend(),
                                           [&](const ComPortSettings& defined) { return defined.portName == port; });
        if (!isDefined)
            io.err << "transport-host: note: no port " << displayName(port) << " is defined yet" << Qt::endl;
    }
}

// What "abonent add" was told; addressing is null if nothing was said about it.
struct Told
{
    QString name;
    std::optional<AbonentComSettings> addressing;
    QByteArray key;
};

// The exit status when the command line is wrong.
std::optional<int> readTold(const CommandLine& given, CommandStreams& io, Told* told)
{
    told->name = given.arguments().first();
    if (!isValidAbonentName(told->name))
        return given.wrongUsage(
            io, QStringLiteral(
                    "'%1' cannot be a name: it needs letters or digits, at most %2 bytes, and no control characters")
                    .arg(displayName(told->name), QString::number(maxAbonentNameBytes)));
    if (given.isSet("key")) {
        QString error;
        told->key = keyFromText(given.value("key"), &error);
        if (told->key.isEmpty())
            return given.wrongUsage(io, error);
    }
    const QString number = given.value("number");
    const QStringList ports = given.values("port");
    if (number.isEmpty() && !ports.isEmpty())
        return given.wrongUsage(io, QStringLiteral("--port needs --number"));
    if (displayName(number) != number)
        return given.wrongUsage(io, QStringLiteral("--number may hold no control characters"));
    if (number.isEmpty() && told->key.isEmpty())
        return given.wrongUsage(io, QStringLiteral("--number or --key is needed"));
    if (!number.isEmpty())
        told->addressing = AbonentComSettings{number, ports};
    return std::nullopt;
}

QString tell(const Told& told, AbonentRecords* records)
{
    int index = records->find(told.name);
    if (index < 0) {
        index = records->abonents.size();
        records->abonents.append(Abonent());
        records->abonents.last().channelData = AbonentComSettings().toByteArray();
    }
    records->abonents[index].name = told.name;
    if (told.addressing)
        records->abonents[index].channelData = told.addressing->toByteArray();
    return told.key.isEmpty() ? QString() : records->pin(index, told.key, Abonent::Pinned::ByHand);
}

QString keyColumn(const Abonent& abonent)
{
    const QString date = abonent.pinnedAt.toLocalTime().toString(QStringLiteral("yyyy-MM-dd"));
    switch (abonent.pinned) {
    case Abonent::Pinned::No: break;
    case Abonent::Pinned::ByHand: return QStringLiteral("key %1, told %2").arg(keyFingerprint(abonent.key), date);
    case Abonent::Pinned::OnFirstCall:
        return QStringLiteral("key %1, pinned by the first call %2").arg(keyFingerprint(abonent.key), date);
    }
    return QStringLiteral("no key: the first call to them pins it");
}

QString numberColumn(const Abonent& abonent)
{
    AbonentComSettings addressing;
    const QString trouble = readRecord(abonent.channelData, &addressing);
    if (!trouble.isEmpty())
        return trouble;
    const QString number =
        addressing.phoneNumber.isEmpty() ? QStringLiteral("(no number)") : displayName(addressing.phoneNumber);
    return addressing.allowedPorts.isEmpty()
               ? number
               : QStringLiteral("%1  through %2")
                     .arg(number, displayName(addressing.allowedPorts.join(QStringLiteral(", "))));
}

// A command that changes one abonent.
int changeAbonent(const CommandLine& given, CommandStreams& io,
                  const std::function<QString(AbonentRecords*, int)>& change)
{
    const QString name = given.arguments().first();
    return statusOf(io, ourBook().change([&](AbonentRecords* records) {
        const int index = records->find(name);
        return index < 0 ? notKnown(name) : change(records, index);
    }));
}

} // namespace

int abonentAdd(const CommandLine& given, CommandStreams& io)
{
    Told told;
    if (const std::optional<int> status = readTold(given, io, &told))
        return *status;
    if (told.addressing)
        notePorts(told.addressing->allowedPorts, io);
    return statusOf(io, ourBook().change([&](AbonentRecords* records) { return tell(told, records); }));
}

int abonentList(const CommandLine&, CommandStreams& io)
{
    AbonentRecords records;
    const QString error = ourBook().read(&records);
    if (!error.isEmpty())
        return fail(io, error);
    for (const Abonent& abonent : qAsConst(records.abonents)) {
        io.out << displayName(abonent.name) << "  " << numberColumn(abonent) << "  " << keyColumn(abonent)
               << (abonent.isBlocked ? "  BLOCKED" : "") << Qt::endl;
    }
    for (const QByteArray& key : qAsConst(records.blockedKeys))
        io.out << "blocked key " << keyFingerprint(key) << "  " << keyText(key) << Qt::endl;
    return exitDone;
}

int abonentForgetKey(const CommandLine& given, CommandStreams& io)
{
    return changeAbonent(given, io, [](AbonentRecords* records, int index) {
        records->forgetKey(index);
        return QString();
    });
}

int abonentBlock(const CommandLine& given, CommandStreams& io)
{
    return changeAbonent(given, io, [](AbonentRecords* records, int index) {
        records->abonents[index].isBlocked = true;
        return QString();
    });
}

int abonentUnblock(const CommandLine& given, CommandStreams& io)
{
    return changeAbonent(given, io, [](AbonentRecords* records, int index) {
        records->abonents[index].isBlocked = false;
        return QString();
    });
}

int abonentRemove(const CommandLine& given, CommandStreams& io)
{
    return changeAbonent(given, io, [](AbonentRecords* records, int index) {
        records->abonents.removeAt(index);
        return QString();
    });
}

} // namespace host
