// A message store in the test's own installation.
#pragma once

#include "host/installation/diskfile.h"
#include "host/installation/names.h"
#include "host/store/messagestore.h"
#include "rig/host/peers.h"
#include "rig/testroot.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace hosttest {

inline QByteArray readAll(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(cannot be read)");
}

inline QString writeFile(const QString& path, const QByteArray& content)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    file.open(QIODevice::WriteOnly);
    file.write(content);
    return path;
}

inline QByteArray sha256(const QByteArray& content)
{
    return QCryptographicHash::hash(content, QCryptographicHash::Sha256);
}

// Paths below <root>/<name>/.
inline host::StorePaths pathsIn(const QString& name)
{
    const QDir base(rig::installRoot() + QLatin1Char('/') + name);
    host::StorePaths paths;
    paths.input = QDir(base.absoluteFilePath(QStringLiteral("input")));
    paths.incomplete = QDir(base.absoluteFilePath(QStringLiteral("incomplete")));
    paths.output = QDir(base.absoluteFilePath(QStringLiteral("output")));
    paths.tasks = QDir(base.absoluteFilePath(QStringLiteral("tasks")));
    paths.receivedList = base.absoluteFilePath(QStringLiteral("received.list"));
    return paths;
}

inline host::OfferFrame offerOf(quint64 id, const QString& name, const QByteArray& content)
{
    host::OfferFrame offer;
    offer.messageId = id;
    offer.size = content.size();
    offer.sha256 = sha256(content);
    offer.modifiedSecs = 1000000000;
    offer.fileName = name;
    return offer;
}

// Receives a whole message; the path it came to, or the error text.
inline QString receiveWhole(host::MessageStore* store, const host::Peer& peer, const host::OfferFrame& offer,
                            const QByteArray& content)
{
    host::RefusedFrame refused;
    const auto file = store->inbox().begin(peer, offer, &refused);
    if (!file)
        return refused.reason;
    QString place;
    QString error = file->append(content);
    if (error.isEmpty())
        error = file->store(offer, &place);
    return error.isEmpty() ? place : error;
}

} // namespace hosttest
