// Why a message still waits in the queue. It is a value that is stored and compared; only for a reader
// it becomes a sentence.
#pragma once

#include <QJsonObject>
#include <QString>

namespace host {

struct WaitReason
{
    enum class Kind
    {
        NotTried, // not called yet, or it will be sent soon
        NoNumber, // the abonent is not known here
        NumberDamaged, // text: what is wrong with its addressing data
        Blocked, // the abonent is blocked here
        NoCalls, // this host was told to place none
        NoModem,
        CallsFailed, // calls: how many in a row; text: why the last one failed
        BrokenOff, // text: how the last session ended
        KeyChanged, // pinned, answered: fingerprints
        Refused, // text: what the peer said
        CopyAtFault, // text: what is wrong with our copy in the queue
        Other, // text: a sentence
    };

    Kind kind = Kind::NotTried;
    int calls = 0;
    QString text;
    QString pinned;
    QString answered;

    // Whether the reason is about this one message and not about its abonent.
    [[nodiscard]] bool isOfTheMessage() const { return kind == Kind::Refused || kind == Kind::CopyAtFault; }

    // For the user: the reason, and what to do about it. May contain text from the peer.
    [[nodiscard]] QString sentence(const QString& abonent) const;

    // One word that programs can compare.
    [[nodiscard]] QString word() const;

    // As it is stored. Earlier versions stored a sentence, which is read as Other.
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
