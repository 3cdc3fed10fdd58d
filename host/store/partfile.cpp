#include "host/store/partfile.h"

#include "host/store/inbox.h"

#include <QMutexLocker>

namespace host {

namespace {

constexpr qint64 askEveryBytes = 1024 * 1024;

} // namespace

PartFile::PartFile(Inbox* inbox, const PartId& id, quint64 generation, qint64 partBytes)
    : m_inbox(inbox), m_id(id), m_generation(generation), m_partBytes(partBytes), m_backLeft(partBytes)
{
}

PartFile::PartFile(Inbox* inbox, std::shared_ptr<PartHolding> holding)
    : m_inbox(inbox), m_id(Parts::idOf(holding->part)), m_generation(holding->part.generation), m_partBytes(0),
      m_backLeft(0), m_holding(std::move(holding))
{
}

qint64 PartFile::length() const
{
    if (!m_holding)
        return m_partBytes;
    QMutexLocker locker(&m_holding->mutex);
    return m_holding->file.size();
}

QByteArray PartFile::readBack(qint64 maxSize, QString* error)
{
    if (!m_back.isOpen()) {
        const QString failure = m_inbox->openPart(m_id, &m_back);
        if (!failure.isEmpty()) {
            *error = failure;
            return QByteArray();
        }
    }
    const QByteArray bytes = m_back.read(qMin(maxSize, m_backLeft));
    m_backLeft -= bytes.size();
    return bytes;
}

bool PartFile::resume(const OfferFrame& offer, RefusedFrame* refused)
{
    m_back.close();
    m_holding = m_inbox->resume(m_id, offer, m_generation, refused);
    if (m_holding)
        m_generation = m_holding->part.generation;
    return m_holding != nullptr;
}

QString PartFile::append(const QByteArray& bytes)
{
    if (!m_holding)
        return QStringLiteral("not resumed");
    QMutexLocker locker(&m_holding->mutex);
    if (m_holding->isLost)
        return QStringLiteral("another call has taken the message over");
    if (bytes.size() > m_holding->part.announcedBytes - m_holding->file.pos())
        return QStringLiteral("more arrives than was announced");
    m_unaskedBytes += bytes.size();
    if (m_unaskedBytes >= askEveryBytes) {
        // Other programs write on the volume, too.
        const QString full = m_inbox->diskIsFull(bytes.size());
        if (!full.isEmpty())
            return full;
        m_unaskedBytes = 0;
    }
    if (m_holding->file.write(bytes) == bytes.size())
        return QString();
    return QStringLiteral("cannot write %1: %2").arg(m_holding->path, m_holding->file.errorString());
}

QString PartFile::store(const OfferFrame& offer, QString* place)
{
    return m_holding ? m_inbox->store(m_holding.get(), offer, place) : QStringLiteral("not resumed");
}

void PartFile::discard()
{
    if (m_holding)
        m_inbox->discard(m_holding.get());
}

} // namespace host
