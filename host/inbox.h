// What arrives: parts in the incomplete directory, whole messages in the input directory.
//
//   incomplete/00000001/<name>     what stands of a message
//   incomplete/00000001/.message   what was announced (JSON); "verified" once it is whole
//   input/00000001/<name>          a whole message, its hash verified
//   input/00000001/.message        from whom, when, under which name, with which hash
//
// A message becomes received in steps that can be cut off anywhere: content synced, record
// marked verified, entry in the list of received messages, directory moved to the input
// directory. From the record on, the start after a crash completes them.
#pragma once

#include <memory>
#include <vector>

#include <QDateTime>
#include <QDir>
#include <QHash>
#include <QMutex>
#include <QString>
#include <QStringList>

#include "host/receivedlist.h"
#include "host/sessionstore.h"

namespace host {

struct ReceivedMessage
{
    QString key; // the directory's name
    quint64 id = 0;
    QString abonent;
    QString fileName; // as the sender calls it
    QString path;     // of the file
    qint64 size = 0;
    QByteArray sha256;
    QDateTime received;
};

struct InboxLimits
{
    qint64 maxMessageBytes = host::maxMessageBytes;
    qint64 keepFreeBytes = 16 * 1024 * 1024; // of the volume
    int maxPartsOfAbonent = 16;              // the oldest give way
    int partDays = 30;                       // untouched parts are removed at the start
};

// Any thread may call any operation.
class Inbox
{
public:
    Inbox(const QDir& inputDir, const QDir& incompleteDir, const QString& receivedListPath, const InboxLimits& limits = {});
    ~Inbox();

    // Call it once, before anything else: creates the directories, completes what a crash
    // cut off. Texts tell of what was found (for the journal); *error is set when the inbox
    // cannot be used.
    QStringList open(QString* error);

    // Whole messages, oldest first. Needs no open().
    [[nodiscard]] QVector<ReceivedMessage> messages() const;

    // See SessionStore.
    [[nodiscard]] QVector<quint64> unsettled(const QString& abonent);
    void settle(const QVector<quint64>& messageIds);
    [[nodiscard]] bool isStored(quint64 messageId, const QByteArray& sha256);
    std::vector<std::unique_ptr<IncomingFile>> parts(const QString& abonent);
    std::unique_ptr<IncomingFile> begin(const QString& abonent, const OfferFrame& offer, RefusedFrame* refused);

private:
    class DiskFile;
    struct Holding;
    struct Part
    {
        quint64 id = 0;
        QString key;
        QString abonentKey;
        QString contentName;
        QByteArray sha256;
        qint64 touchedMs = 0;
        std::weak_ptr<Holding> holder;
    };

    [[nodiscard]] QString partPath(const Part& part) const;
    [[nodiscard]] QString contentPath(const Part& part) const;
    [[nodiscard]] QString whyNot(const OfferFrame& offer, qint64 standing) const;
    void recoverPart(const QString& key, QStringList* notes);
    QString finishPart(const Part& part, quint64 id, const QByteArray& sha256, const QString& abonentKey, QString* place);
    QString createPart(Part* part, const QString& abonent, const OfferFrame& offer);
    void dropOldParts(const QString& abonentKey);
    QString hold(quint64 id, qint64 length, std::shared_ptr<Holding>* holding);
    QString storePart(const std::shared_ptr<Holding>& holding, const OfferFrame& offer, QString* place);
    void discardPart(const std::shared_ptr<Holding>& holding);

    const QDir m_inputDir;
    const QDir m_incompleteDir;
    const InboxLimits m_limits;

    QMutex m_mutex; // guards the rest; a holding's own mutex is taken inside it, never around it
    ReceivedList m_received;
    QHash<quint64, Part> m_parts;
};

} // namespace host
