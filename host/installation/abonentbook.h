// Whom this installation knows: the number under which an abonent is called, the key by which it
// proves who it is, and keys that are blocked. Kept in abonents.conf in the settings directory, which
// commands and a running host may change at the same time.
#pragma once

#include "plugin/api/channeltype.h"

#include <QByteArray>
#include <QDateTime>
#include <QMutex>
#include <QString>
#include <QVector>

#include <functional>
#include <optional>

namespace host {

// One abonent: its addressing data is opaque here and belongs to the kind of channel.
struct Abonent
{
    QString name;
    qint32 channelType = ChannelType::dialUp;
    QByteArray channelData;

    enum class Pinned
    {
        No,
        ByHand,
        OnFirstCall
    };
    QByteArray key; // public; empty while none is pinned
    Pinned pinned = Pinned::No;
    QDateTime pinnedAt; // UTC
    bool isBlocked = false;
};

struct AbonentRecords
{
    QVector<Abonent> abonents;
    QVector<QByteArray> blockedKeys; // whether or not an abonent has them

    // find() by the name's key (see names.h), findKey() by the pinned key; -1 when there is none.
    [[nodiscard]] int find(const QString& name) const;
    [[nodiscard]] int findKey(const QByteArray& key) const;

    // Pins key to an abonent. A key belongs to one abonent only: returns a text if another has it.
    [[nodiscard]] QString pin(int index, const QByteArray& key, Abonent::Pinned how);
    void forgetKey(int index);
};

// The content of the file. Version 2 is written; version 1, from hosts without keys, is read as well.
// Error texts are empty on success.
[[nodiscard]] QByteArray writeAbonents(const AbonentRecords& records);
[[nodiscard]] QString readAbonents(const QByteArray& bytes, AbonentRecords* records);

// Any thread may call any operation; several programs may have the same file open.
class AbonentBook
{
public:
    explicit AbonentBook(const QString& path); // Global::abonentsSettingsFilePath()

    // The content of the file now: it is read again whenever it has changed. On failure returns an
    // error text, and the records are those that were read before.
    [[nodiscard]] QString read(AbonentRecords* records);

    // Reads the file, lets change alter the records and writes them, all under the file's lock. If
    // change returns an error text, nothing is written. Waits for the lock at most 5 s; read() does
    // not wait for it.
    using Change = std::function<QString(AbonentRecords*)>;
    [[nodiscard]] QString change(const Change& change);

private:
    [[nodiscard]] QString refresh();
    [[nodiscard]] QString load(AbonentRecords* records) const;
    [[nodiscard]] QString changeLocked(const Change& change);

    const QString m_path;
    QMutex m_changing; // one change at a time; taken before the file's lock, which may take seconds
    QMutex m_mutex; // guards the rest; never held while waiting for a lock
    QByteArray m_stamp; // of the content that was read
    AbonentRecords m_records;
};

} // namespace host
