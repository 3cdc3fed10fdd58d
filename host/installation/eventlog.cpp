#include "host/installation/eventlog.h"

#include "common/plantedlinks.h"

#include <QDateTime>
#include <QJsonDocument>

#include <ctime>

namespace host {

QString EventLog::open(const QString& path)
{
    if (isForeignLink(QFile::encodeName(path)))
        return QStringLiteral("cannot write %1: it is a link that another user has made").arg(path);
    m_file.setFileName(path);
    if (m_file.open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Unbuffered))
        return QString();
    return QStringLiteral("cannot write %1: %2").arg(path, m_file.errorString());
}

void EventLog::write(const QString& event, QJsonObject fields)
{
    if (!m_file.isOpen())
        return;
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    fields[QStringLiteral("event")] = event;
    fields[QStringLiteral("time")] = QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs);
    fields[QStringLiteral("monotonic")] =
        static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec / 1000000) / 1000.0;
    m_file.write(QJsonDocument(fields).toJson(QJsonDocument::Compact) + '\n');
}

} // namespace host
