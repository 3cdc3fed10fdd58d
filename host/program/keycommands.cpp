#include "host/program/keycommands.h"

#include "common/global.h"
#include "host/installation/abonentbook.h"
#include "host/installation/ownkey.h"
#include "host/program/exitstatus.h"

#include <QJsonDocument>
#include <QJsonObject>

namespace host {

namespace {

// Null with *status set when the argument is no key.
QByteArray readKey(const CommandLine& given, CommandStreams& io, int* status)
{
    QString error;
    const QByteArray key = keyFromText(given.arguments().first(), &error);
    if (key.isEmpty())
        *status = given.wrongUsage(io, error);
    return key;
}

} // namespace

int showKey(const CommandLine& given, CommandStreams& io)
{
    QString error;
    QStringList notes;
    const std::shared_ptr<const KeyPair> key = openOwnKey(given.isSet("new"), &notes, &error);
    if (!key)
        return fail(io, error);
    for (const QString& note : qAsConst(notes))
        io.err << "transport-host: " << note << Qt::endl;
    const QString text = keyText(key->publicKey());
    if (given.isSet("json"))
        io.out << QString::fromUtf8(
                      QJsonDocument(QJsonObject{{QStringLiteral("fingerprint"), keyFingerprint(key->publicKey())},
                                                {QStringLiteral("key"), text}})
                          .toJson(QJsonDocument::Compact))
               << Qt::endl;
    else if (given.isSet("text"))
        io.out << text << Qt::endl;
    else
        io.out << "fingerprint  " << keyFingerprint(key->publicKey()) << "\nkey          " << text << Qt::endl;
    return exitDone;
}

int keyBlock(const CommandLine& given, CommandStreams& io)
{
    int status = exitDone;
    const QByteArray key = readKey(given, io, &status);
    if (key.isEmpty())
        return status;
    return statusOf(io, AbonentBook(Global::abonentsSettingsFilePath()).change([&](AbonentRecords* records) {
        if (!records->blockedKeys.contains(key))
            records->blockedKeys.append(key);
        return QString();
    }));
}

int keyUnblock(const CommandLine& given, CommandStreams& io)
{
    int status = exitDone;
    const QByteArray key = readKey(given, io, &status);
    if (key.isEmpty())
        return status;
    return statusOf(io, AbonentBook(Global::abonentsSettingsFilePath()).change([&](AbonentRecords* records) {
        return records->blockedKeys.removeAll(key) > 0
                   ? QString()
                   : QStringLiteral("the key %1 is not blocked: \"transport-host abonent list\" shows those that are")
                         .arg(keyFingerprint(key));
    }));
}

} // namespace host
