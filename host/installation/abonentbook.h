// Whom this installation knows: under which number an abonent is called and by which key it
// proves who it is; and the keys that are let in by no means. abonents.conf in the settings
// directory, which commands and a running host change side by side.
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
    QVector<QByteArray> blockedKeys; // whoever has them

    // By key of the name (see names.h), and by the pinned key; -1 when there is none.
    [[nodiscard]] int find(const QString& name) const;
    [[nodiscard]] int findKey(const QByteArray& key) const;

    // Pins key to an abonent. An abonent has one key and a key one abonent: a text when
    // another has it.
    [[nodiscard]] QString pin(int index, const QByteArray& key, Abonent::Pinned how);
    void forgetKey(int index);
};

// The content of the file: version 2, as "abonent add" and a first call leave it; version 1, of
// hosts that knew no keys, is read as well. Error texts are empty on success.
[[nodiscard]] QByteArray writeAbonents(const AbonentRecords& records);
[[nodiscard]] QString readAbonents(const QByteArray& bytes, AbonentRecords* records);

// Any thread may call any operation; several programs may have the same file open.
class AbonentBook
{
public:
    explicit AbonentBook(const QString& path); // Global::abonentsSettingsFilePath()

    // What stands in the file now: it is read again whenever it has changed. On failure an
    // error text, and the records are those of before.
    [[nodiscard]] QString read(AbonentRecords* records);

    // Changes the file under its lock, from what stands there at that moment. change may refuse
    // by an error text: then nothing is written. Waits 5 s for the lock at most; read() does not
    // wait for it.
    using Change = std::function<QString(AbonentRecords*)>;
    [[nodiscard]] QString change(const Change& change);

private:
    [[nodiscard]] QString refresh();
    [[nodiscard]] QString load(AbonentRecords* records) const;
    [[nodiscard]] QString changeLocked(const Change& change);

    const QString m_path;
    QMutex m_changing; // one change at a time; taken before the file's lock, which may take seconds
    QMutex m_mutex; // guards the rest; never held while waiting for a lock
    QByteArray m_stamp; // of what was read
    AbonentRecords m_records;
};

} // namespace host
