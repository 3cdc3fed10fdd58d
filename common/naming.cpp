#include "common/global.h"
#include "common/legacyrandom.h"

#include <QFileInfo>
#include <QHash>

#include <algorithm>

namespace {

constexpr int numberWidth = 8;
constexpr int messageCandidates = 100;
constexpr int taskCandidates = 99;

// The last number given in each directory. No lock: only one thread gives names.
using IssuedNumbers = QHash<QString, qint64>;

QString paddedNumber(qint64 number)
{
    return QString::number(number).rightJustified(numberWidth, QLatin1Char('0'));
}

bool isMessageName(const QString& name)
{
    const auto isDigit = [](QChar c) { return c >= QLatin1Char('0') && c <= QLatin1Char('9'); };
    return name.length() == numberWidth && std::all_of(name.begin(), name.end(), isDigit);
}

qint64 lastMessageNumber(const QDir& dir)
{
    const QStringList names = dir.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
    const auto last = std::find_if(names.rbegin(), names.rend(), isMessageName);
    return last == names.rend() ? 0 : last->toLongLong();
}

// The last file decides, whatever its name is; a name that is no number counts as 0.
qint64 lastTaskNumber(const QDir& dir)
{
    const QStringList names = dir.entryList({QStringLiteral("*.task")}, QDir::Files | QDir::NoDotAndDotDot, QDir::Name);
    return names.isEmpty() ? 0 : QFileInfo(names.last()).baseName().toInt();
}

} // namespace

QString Global::nextMessageDirName(const QDir& dir)
{
    static IssuedNumbers issued;
    const QString key = dir.absolutePath();
    const auto known = issued.constFind(key);
    const qint64 start = known != issued.constEnd() ? *known : lastMessageNumber(dir);
    for (qint64 number = start + 1; number <= start + messageCandidates; ++number) {
        const QString name = paddedNumber(number);
        if (!dir.exists(name)) {
            issued.insert(key, number);
            return name;
        }
    }
    return {};
}

QString Global::nextTaskFileName(const QDir& dir)
{
    static IssuedNumbers issued;
    // The path as given, not the absolute one: two ways to write a directory are counted separately.
    const QString key = dir.path();
    const auto known = issued.constFind(key);
    const qint64 first = (known != issued.constEnd() ? *known : lastTaskNumber(dir)) + 1;
    for (qint64 number = first; number < first + taskCandidates; ++number) {
        const QString name = paddedNumber(number) + QStringLiteral(".task");
        if (!dir.exists(name)) {
            issued.insert(key, number);
            return name;
        }
    }
    return QStringLiteral("_%1.task").arg(legacyRandom());
}
