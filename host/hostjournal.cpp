#include "host/hostjournal.h"

#include "common/global.h"
#include "common/logger.h"
#include "host/names.h"

#include <QFile>
#include <QFileInfo>
#include <QMutexLocker>

namespace host {

QString JournalRecord::line() const
{
    return time.toString(QStringLiteral("yyyy-MM-dd HH:mm:ss.zzz ")) + (isError ? QStringLiteral("ERROR ") : QString()) +
           displayName(source) + QStringLiteral(": ") + displayName(text);
}

HostJournal::HostJournal(const QString& path, Listener listener, qint64 maxBytes)
    : m_path(path), m_listener(std::move(listener)), m_maxBytes(maxBytes)
{
    Global::makePath(QFileInfo(path).absoluteDir());
}

void HostJournal::addRecord(int kind, const QString& source, const QString& text)
{
    JournalRecord record;
    record.time = QDateTime::currentDateTime();
    record.isError = kind != 0;
    record.source = source;
    record.text = text;
    append(record.line().toUtf8() + '\n');
    if (m_listener)
        m_listener(record);
}

void HostJournal::append(const QByteArray& line)
{
    QString failure;
    {
        QMutexLocker locker(&m_mutex);
        if (QFileInfo(m_path).size() > m_maxBytes) {
            QFile::remove(m_path + QStringLiteral(".old"));
            QFile::rename(m_path, m_path + QStringLiteral(".old"));
        }
        QFile file(m_path);
        const bool isNew = !file.exists();
        const bool ok = file.open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Unbuffered) && file.write(line) == line.size();
        if (ok && isNew)
            Global::setFilePermissions(m_path);
        if (!ok && !m_failed)
            failure = file.errorString();
        m_failed = !ok;
    }
    if (!failure.isEmpty())
        debug(QStringLiteral("HostJournal"), QStringLiteral("cannot write %1: %2").arg(m_path, failure), DebugAlways, DebugFlagNone);
}

} // namespace host
