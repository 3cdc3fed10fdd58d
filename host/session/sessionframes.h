// The payload of each kind of session frame.
#pragma once

#include "host/installation/names.h"
#include "host/session/frame.h"

#include <QByteArray>
#include <QString>
#include <QVector>

namespace host {

constexpr quint8 sessionVersion = 2; // version 1 had no keys
constexpr quint64 noMessageId = 0; // no message has it
constexpr int sha256Bytes = 32;
constexpr int maxFileNameBytes = 1024; // in UTF-8; a name of any file system fits
constexpr int maxReasonBytes = 400; // in UTF-8
constexpr qint64 maxMessageBytes = Q_INT64_C(1) << 53;

// Each decode() returns false if the payload is too short, too long or makes no sense.

// The first frame of each side.
struct HelloFrame
{
    QString abonentName; // what this side calls itself: only shown; empty to a peer that is not proved

    [[nodiscard]] QByteArray encode() const;
    [[nodiscard]] bool decode(const QByteArray& payload);
};

// The part of a message that an earlier session left when it broke off.
struct MessagePart
{
    quint64 messageId = 0;
    qint64 length = 0;
    QByteArray sha256; // of the part
};

// What one side has got from the other; a long list takes several frames.
struct StateFrame
{
    bool isLast = true;
    QVector<quint64> storedIds; // stored, but the sender may not know
    QVector<MessagePart> parts;

    static constexpr int maxStoredIds = 1000; // in one frame
    static constexpr int maxParts = 64; // in one frame

    [[nodiscard]] QByteArray encode() const;
    [[nodiscard]] bool decode(const QByteArray& payload);
};

struct OfferFrame
{
    quint64 messageId = 0;
    qint64 size = 0;
    qint64 offset = 0; // the data begins here: the receiver has the bytes before, their hash was compared
    QByteArray sha256; // of the whole
    qint64 modifiedSecs = 0; // seconds since the epoch, 0 when not known
    QString fileName; // the sender's name for it: shown, never used as a path

    [[nodiscard]] QByteArray encode() const;
    [[nodiscard]] bool decode(const QByteArray& payload);
};

enum class RefusalCode : quint8
{
    NoRoom = 1, // the disk is full
    WrongHash = 2, // what arrived is not what was offered
    NotAllowed = 3, // by this installation's settings
    Failed = 4, // could not be written
};

struct RefusedFrame
{
    quint64 offerIndex = 0; // the offers of a session count from 0
    RefusalCode code = RefusalCode::Failed;
    QString reason;

    [[nodiscard]] QByteArray encode() const;
    [[nodiscard]] bool decode(const QByteArray& payload);
};

// Stored: the numbers of the offers.
[[nodiscard]] QByteArray encodeNumbers(const QVector<quint64>& numbers);
[[nodiscard]] bool decodeNumbers(const QByteArray& payload, QVector<quint64>* numbers);

// Abort and Stop: a reason in UTF-8, cut to maxReasonBytes.
[[nodiscard]] QByteArray encodeReason(const QString& reason);
[[nodiscard]] bool decodeReason(const QByteArray& payload, QString* reason);

// False when bytes are not well-formed UTF-8.
[[nodiscard]] bool decodeUtf8(const QByteArray& bytes, QString* text);

} // namespace host
