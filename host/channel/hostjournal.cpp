#include "host/channel/hostjournal.h"

#include "common/global.h"
#include "common/logger.h"
#include "common/plantedlinks.h"
#include "host/installation/diskfile.h"
#include "host/installation/names.h"
#include "plugin/api/journalkind.h"

#include <QFile>
#include <QFileInfo>
#include <QMutexLocker>

#include <cerrno>

namespace host {

QString JournalRecord::line() const
{
    return time.toString(QStringLiteral("yyyy-MM-dd HH:mm:ss.zzz ")) +
           (isError ? QStringLiteral("ERROR ") : QString()) + displayName(source) + QStringLiteral(": ") +
           displayName(text);
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
    record.isError = kind != JournalKind::event;
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
        const QString error = write(line);
        if (!m_failed)
            failure = error;
        m_failed = !error.isEmpty();
    }
    if (!failure.isEmpty())
        debug(QStringLiteral("HostJournal"), QStringLiteral("cannot write %1: %2").arg(m_path, failure), DebugAlways,
              DebugFlagNone);
}

QString HostJournal::write(const QByteArray& line) const
{
    if (QFileInfo(m_path).size() > m_maxBytes)
        (void)renamePath(m_path, m_path + QStringLiteral(".old")); // if that fails, the file goes on growing
    const bool isNew = !QFile::exists(m_path);
    const int descriptor = openOwnForAppending(QFile::encodeName(m_path));
    if (descriptor < 0 && errno == ELOOP)
        return QStringLiteral("it is a link, and links are not followed here: remove it");
    if (descriptor < 0 && errno == EMLINK)
        return QStringLiteral("it has another name elsewhere: remove it");
    if (descriptor < 0)
        return qt_error_string(errno);
    QFile file;
    if (!file.open(descriptor, QIODevice::Append | QIODevice::Unbuffered, QFileDevice::AutoCloseHandle) ||
        file.write(line) != line.size())
        return file.errorString();
    if (isNew)
        Global::setFilePermissions(m_path);
    return QString();
}

} // namespace host
