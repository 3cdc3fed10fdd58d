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
    // A part of partBytes that is left from an earlier session.
    PartFile(Inbox* inbox, const PartId& id, quint64 generation, qint64 partBytes);

    // One that is begun.
    PartFile(Inbox* inbox, std::shared_ptr<PartHolding> holding);

    [[nodiscard]] quint64 messageId() const override { return m_id.id; }
    [[nodiscard]] qint64 length() const override;
    QByteArray readBack(qint64 maxSize, QString* error) override;
    bool resume(const OfferFrame& offer, RefusedFrame* refused) override;
    QString append(const QByteArray& bytes) override;
    QString store(const OfferFrame& offer, QString* place) override;
    void discard() override;

private:
    Inbox* const m_inbox; // not owned
    const PartId m_id;
    quint64 m_generation; // of the part, when this object was made or has resumed it
    const qint64 m_partBytes; // when this object was made
    QFile m_back; // for readBack()
    qint64 m_backLeft;
    qint64 m_unaskedBytes = 0; // written since the free room on the volume was last asked for
    std::shared_ptr<PartHolding> m_holding; // null until the part is begun or resumed
};

} // namespace host
