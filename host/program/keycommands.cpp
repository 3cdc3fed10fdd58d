#include "host/program/keycommands.h"

#include "common/global.h"
#include "host/installation/abonentbook.h"
#include "host/installation/ownkey.h"
#include "host/program/exitstatus.h"

#include <QJsonDocument>
#include <QJsonObject>

namespace host {

namespace {

// Null when the command line is not to be carried out; *status then.
QByteArray keyArgument(CommandLine* line, const QStringList& arguments, CommandStreams& io, int* status)
{
    line->parser.addPositionalArgument(QStringLiteral("KEY"),
                                       QStringLiteral("The key as text, as the journal and \"key\" show it."));
    if (const std::optional<int> end = line->parse(arguments, io, 1, 1)) {
        *status = *end;
        return QByteArray();
    }
    QString error;
    const QByteArray key = keyFromText(line->parser.positionalArguments().first(), &error);
    if (key.isEmpty())
        *status = line->usage(io, error);
    return key;
}

} // namespace

int keyCommand(const QStringList& arguments, CommandStreams& io)
{
    CommandLine line(
        QStringLiteral("key"),
        QStringLiteral(
            "Shows the key by which the others know this installation: its fingerprint, to be compared, for example "
            "on\n"
            "the telephone, and the text to hand over, for their \"transport-host abonent add NAME --key TEXT\".\n"
            "The key is made at the first time. Its file, settings/identity.key, is a secret."));
    line.parser.addOption({QStringLiteral("text"), QStringLiteral("Print the text alone, for scripts.")});
    line.parser.addOption(
        {QStringLiteral("json"), QStringLiteral("For programs: one JSON object with \"fingerprint\" and \"key\".")});
    line.parser.addOption(
        {QStringLiteral("new"),
         QStringLiteral("Make a new key where the file is lost; the others must forget the old one.")});
    if (const std::optional<int> status = line.parse(arguments, io, 0, 0))
        return *status;
    QString error;
    QStringList notes;
    const std::shared_ptr<const KeyPair> key = openOwnKey(line.parser.isSet(QStringLiteral("new")), &notes, &error);
    if (!key)
        return fail(io, error);
    for (const QString& note : qAsConst(notes))
        io.err << "transport-host: " << note << Qt::endl;
    const QString text = keyText(key->publicKey());
    if (line.parser.isSet(QStringLiteral("json")))
        io.out << QString::fromUtf8(
                      QJsonDocument(QJsonObject{{QStringLiteral("fingerprint"), keyFingerprint(key->publicKey())},
                                                {QStringLiteral("key"), text}})
                          .toJson(QJsonDocument::Compact))
               << Qt::endl;
    else if (line.parser.isSet(QStringLiteral("text")))
        io.out << text << Qt::endl;
    else
        io.out << "fingerprint  " << keyFingerprint(key->publicKey()) << "\nkey          " << text << Qt::endl;
    return exitDone;
}

int keyBlock(const QStringList& arguments, CommandStreams& io)
{
    CommandLine line(QStringLiteral("key block"),
                     QStringLiteral("Lets nobody in who has this key, whatever else is allowed."));
    int status = exitDone;
    const QByteArray key = keyArgument(&line, arguments, io, &status);
    if (key.isEmpty())
        return status;
    return statusOf(io, AbonentBook(Global::abonentsSettingsFilePath()).change([&](AbonentRecords* records) {
        if (!records->blockedKeys.contains(key))
            records->blockedKeys.append(key);
        return QString();
    }));
}

int keyUnblock(const QStringList& arguments, CommandStreams& io)
{
    CommandLine line(QStringLiteral("key unblock"), QStringLiteral("Takes the block of a key back."));
    int status = exitDone;
    const QByteArray key = keyArgument(&line, arguments, io, &status);
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
