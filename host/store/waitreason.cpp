#include "host/store/waitreason.h"

namespace host {

namespace {

using Kind = WaitReason::Kind;

// These words are in files: never change one.
const struct
{
    Kind kind;
    const char* word;
} words[] = {
    {Kind::NotTried, "notTried"},       {Kind::NoNumber, "noNumber"},       {Kind::NumberDamaged, "numberDamaged"},
    {Kind::Blocked, "blocked"},         {Kind::NoCalls, "noCalls"},         {Kind::NoModem, "noModem"},
    {Kind::CallsFailed, "callsFailed"}, {Kind::BrokenOff, "brokenOff"},     {Kind::KeyChanged, "keyChanged"},
    {Kind::Refused, "refused"},         {Kind::CopyAtFault, "copyAtFault"}, {Kind::Other, "other"},
};

const QString kindKey = QStringLiteral("kind");
const QString callsKey = QStringLiteral("calls");
const QString textKey = QStringLiteral("text");
const QString pinnedKey = QStringLiteral("pinned");
const QString answeredKey = QStringLiteral("answered");
const QString sentenceKey = QStringLiteral("reason"); // written by earlier versions

void put(QJsonObject* record, const QString& key, const QString& text)
{
    if (!text.isEmpty())
        (*record)[key] = text;
}

QString failedCalls(int calls, const QString& last)
{
    const QString count = calls == 1 ? QStringLiteral("1 call") : QStringLiteral("%1 calls").arg(calls);
    return last.isEmpty() ? QStringLiteral("%1 in a row failed").arg(count)
                          : QStringLiteral("%1 in a row failed, the last: %2").arg(count, last);
}

} // namespace

QString WaitReason::sentence(const QString& abonent) const
{
    switch (kind) {
    case Kind::NotTried: return QStringLiteral("not tried yet");
    case Kind::NoNumber:
        return QStringLiteral("no number is known for '%1' (transport-host abonent add): it waits for their call")
            .arg(abonent);
    case Kind::NumberDamaged:
        return QStringLiteral(
                   "the number of '%1' cannot be read (%2): tell it again with \"transport-host abonent add\"")
            .arg(abonent, text);
    case Kind::Blocked: return QStringLiteral("'%1' is blocked here (transport-host abonent unblock)").arg(abonent);
    case Kind::NoCalls: return QStringLiteral("this host places no calls: it waits for theirs");
    case Kind::NoModem: return QStringLiteral("no modem is ready");
    case Kind::CallsFailed: return failedCalls(calls, text);
    case Kind::BrokenOff: return QStringLiteral("the last call broke off: %1").arg(text);
    case Kind::KeyChanged:
        return QStringLiteral("'%1' answered with the key %2, but %3 is pinned: ask them; if theirs is new, "
                              "\"transport-host abonent forget-key\" lets the next call pin it")
            .arg(abonent, answered, pinned);
    case Kind::Refused:
    case Kind::CopyAtFault:
    case Kind::Other: break;
    }
    return text;
}

QString WaitReason::word() const
{
    for (const auto& entry : words) {
        if (entry.kind == kind)
            return QString::fromLatin1(entry.word);
    }
    return QString();
}

QJsonObject WaitReason::toJson() const
{
    QJsonObject record{{kindKey, word()}};
    if (calls != 0)
        record[callsKey] = calls;
    put(&record, textKey, text);
    put(&record, pinnedKey, pinned);
    put(&record, answeredKey, answered);
    return record;
}

WaitReason WaitReason::fromJson(const QJsonObject& record)
{
    WaitReason reason;
    const QString kindWord = record[kindKey].toString();
    bool isKnown = false;
    for (const auto& entry : words) {
        if (kindWord == QLatin1String(entry.word)) {
            reason.kind = entry.kind;
            isKnown = true;
        }
    }
    reason.calls = record[callsKey].toInt();
    reason.text = record[textKey].toString();
    reason.pinned = record[pinnedKey].toString();
    reason.answered = record[answeredKey].toString();
    if (isKnown)
        return reason;
    WaitReason told;
    told.text = record.contains(sentenceKey) ? record[sentenceKey].toString() : reason.text;
    told.kind = told.text.isEmpty() ? Kind::NotTried : Kind::Other;
    return told;
}

} // namespace host
