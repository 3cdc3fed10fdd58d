#include "host/installation/eventlog.h"

#include "common/plantedlinks.h"

#include <QDateTime>
#include <QJsonDocument>

#include <ctime>
#include <sys/stat.h>

namespace host {

QString EventLog::open(const QString& path)
{
    if (isForeignLink(QFile::encodeName(path)))
        return QStringLiteral("cannot write %1: it is a link that another user has made").arg(path);
    m_file.setFileName(path);
    if (!m_file.open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Unbuffered))
        return QStringLiteral("cannot write %1: %2").arg(path, m_file.errorString());
    struct stat facts = {};
    if (::fstat(m_file.handle(), &facts) != 0 || !S_ISREG(facts.st_mode) || facts.st_nlink == 1)
        return QString();
    m_file.close();
    return QStringLiteral("cannot write %1: it has another name elsewhere, and is not written").arg(path);
}

void EventLog::write(const QString& event, QJsonObject fields)
{
    if (!m_file.isOpen())
        return;
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const qint64 nowMs = qint64(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
    fields[QStringLiteral("event")] = event;
    fields[QStringLiteral("time")] = QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs);
    fields[QStringLiteral("monotonic")] = static_cast<double>(nowMs) / 1000.0;
    m_file.write(QJsonDocument(fields).toJson(QJsonDocument::Compact) + '\n');
}

} // namespace host
