// Why a message still waits in the queue: a value, which is stored and compared; it becomes a
// sentence only where somebody reads it.
#pragma once

#include <QJsonObject>
#include <QString>

namespace host {

struct WaitReason
{
    enum class Kind
    {
        NotTried, // or everything is in order and its turn comes
        NoNumber, // the abonent is not known here
        NumberDamaged, // text: what is wrong with its addressing data
        Blocked, // the abonent is blocked here
        NoCalls, // this host was told to place none
        NoModem,
        CallsFailed, // calls: in a row; text: the channel's or the session's word for the last one
        BrokenOff, // text: how the last session ended
        KeyChanged, // pinned, answered: fingerprints
        Refused, // text: the peer's word
        CopyAtFault, // text: what is wrong with the copy in the queue
        Other, // text: a sentence
    };

    Kind kind = Kind::NotTried;
    int calls = 0;
    QString text;
    QString pinned;
    QString answered;

    // About this one message, whatever else is known of its abonent.
    [[nodiscard]] bool isOfTheMessage() const { return kind == Kind::Refused || kind == Kind::CopyAtFault; }

    // For the user: why, and what can be done about it. May hold what came from the peer.
    [[nodiscard]] QString sentence(const QString& abonent) const;

    // One word that programs can compare.
    [[nodiscard]] QString word() const;

    // As it is kept; what earlier versions kept, a sentence, reads as Other.
    [[nodiscard]] QJsonObject toJson() const;
    [[nodiscard]] static WaitReason fromJson(const QJsonObject& record);

    bool operator==(const WaitReason& other) const
    {
        return kind == other.kind && calls == other.calls && text == other.text && pinned == other.pinned &&
               answered == other.answered;
    }
    bool operator!=(const WaitReason& other) const { return !(*this == other); }
};

} // namespace host
