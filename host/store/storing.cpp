#include "host/store/storing.h"

#include "common/csettings.h"
#include "host/installation/diskfile.h"
#include "host/installation/opendirectory.h"

#include <QDateTime>
#include <QMutexLocker>

namespace host {

namespace {

QString syncContent(PartHolding* holding, const OfferFrame& offer)
{
    QMutexLocker held(&holding->mutex);
    if (holding->isLost)
        return QStringLiteral("another call has taken the message over");
    if (offer.modifiedSecs > 0)
        holding->file.setFileTime(QDateTime::fromSecsSinceEpoch(offer.modifiedSecs), QFileDevice::FileModificationTime);
    // Through the open file, since its name might lead elsewhere by now. Fails on a file system without
    // modes.
    (void)holding->file.setPermissions(QFileDevice::Permissions(CSettings().filePermissions()));
    const QString error = syncFile(&holding->file);
    holding->file.close();
    holding->isLost = true;
    return error.isEmpty() ? error : QStringLiteral("cannot write %1: %2").arg(holding->path, error);
}

// It is known that the directory itself is no link.
QString saveVerified(const PartHolding& holding, const OpenDirectory& directory, const OfferFrame& offer,
                     bool isVerified)
{
    MessageRecord record = MessageRecord::of(holding.part.sender, offer, holding.part.contentName);
    record.isVerified = isVerified;
    record.received = QDateTime::currentDateTimeUtc();
    return saveRecord(directory.pathOf(messageRecordName), record.toJson());
}

} // namespace

QString makeDurable(PartHolding* holding, const QDir& incompleteDir, const OfferFrame& offer)
{
    QString error = syncContent(holding, offer);
    if (!error.isEmpty())
        return error;
    const OpenDirectory incomplete = OpenDirectory::at(incompleteDir.absolutePath(), &error);
    if (!incomplete.isOpen())
        return error;
    const OpenDirectory directory = incomplete.below(holding->part.key, &error);
    if (!directory.isOpen())
        return error;
    error = saveVerified(*holding, directory, offer, true); // syncs the names in the directory, too
    return error.isEmpty() ? incomplete.sync() : error;
}

void markUnverified(const PartHolding& holding, const QDir& incompleteDir, const OfferFrame& offer)
{
    QString error;
    const OpenDirectory directory = OpenDirectory::at(incompleteDir.absoluteFilePath(holding.part.key), &error);
    if (directory.isOpen())
        (void)saveVerified(holding, directory, offer, false); // if that fails, the next start stores the message
}

QString moveIntoInbox(const Part& part, const QDir& incompleteDir, const QDir& inputDir, ReceivedList* received,
                      QString* place)
{
    const QString key = peerKey(part.sender);
    const bool isListed = received->contains(key, part.id, part.sha256);
    QString error = isListed ? QString() : received->add(key, part.id, part.sha256);
    if (!error.isEmpty())
        return error;
    const OpenDirectory from = OpenDirectory::at(incompleteDir.absolutePath(), &error);
    const OpenDirectory to = OpenDirectory::at(inputDir.absolutePath(), &error);
    const QString name = nextMessageName(inputDir);
    if (name.isEmpty() && error.isEmpty())
        error = QStringLiteral("no free message number in %1").arg(inputDir.absolutePath());
    if (error.isEmpty())
        error = from.moveDirectory(part.key, to, name);
    if (!error.isEmpty()) {
        (void)received->takeBack(key, part.id); // also an entry of an earlier run: the message is not in the inbox
        return error;
    }
    // If this fails, the message is in the inbox all the same, unless power fails soon.
    (void)to.sync();
    (void)from.sync();
    *place = to.pathOf(name) + QLatin1Char('/') + part.contentName;
    return QString();
}

} // namespace host
