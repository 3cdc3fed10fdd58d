// A part as a session sees it.
#pragma once

#include "host/session/sessionstore.h"
#include "host/store/parts.h"

#include <QFile>

#include <memory>

namespace host {

class Inbox;

class PartFile : public IncomingFile
{
public:
    // standing: bytes that stand now.
    PartFile(Inbox* inbox, const PartId& id, quint64 generation, qint64 standing);

    [[nodiscard]] quint64 messageId() const override { return m_id.id; }
    [[nodiscard]] qint64 length() const override;
    QByteArray readBack(qint64 maxSize, QString* error) override;
    [[nodiscard]] quint64 generation() const override { return m_generation; }
    bool resume(const OfferFrame& offer, quint64 generation, RefusedFrame* refused) override;
    QString append(const QByteArray& bytes) override;
    QString store(const OfferFrame& offer, QString* place) override;
    void discard() override;

private:
    Inbox* const m_inbox; // not owned
    const PartId m_id;
    quint64 m_generation;
    const qint64 m_standing;
    QFile m_back; // for reading what stood at first
    qint64 m_backLeft;
    qint64 m_unaskedBytes = 0; // written since the volume was asked for its room
    std::shared_ptr<PartHolding> m_holding; // null until resumed
};

} // namespace host
