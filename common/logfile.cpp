#include "common/logfile.h"

#include <cstdio>
#include <ctime>

#include <fcntl.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QDate>
#include <QDateTime>

#include "common/global.h"
#include "common/qtmessages.h"

void LogTarget::find()
{
    if (m_secrecy != -1)
        return;
    m_secrecy = Global::currentSecrecy();
    m_directory = Global::logDir(m_secrecy);
    const QString name = QStringLiteral("%1_%2_%3.log")
                             .arg(QCoreApplication::applicationName(),
                                  Global::filterNotValidSymbols(Global::currentSystemUserName()),
                                  QDate::currentDate().toString(QStringLiteral("yyyy.MM.dd")));
    m_filePath = m_directory.absoluteFilePath(name);
    m_encodedPath = QFile::encodeName(m_filePath);
}

// Appending is the descriptor's business: told of it, Qt would look for the end each time.
ExistingLog::ExistingLog(QFile& file, const QByteArray& encodedPath)
    : m_descriptor(::open(encodedPath.constData(), O_WRONLY | O_APPEND | O_CLOEXEC)),
      m_isOpen(m_descriptor >= 0
               && file.open(m_descriptor, QIODevice::WriteOnly | QIODevice::Unbuffered, QFileDevice::DontCloseHandle))
{
}

ExistingLog::~ExistingLog()
{
    if (m_descriptor >= 0)
        ::close(m_descriptor);
}

bool openLog(QFile& file)
{
    if (file.open(QIODevice::Append | QIODevice::Unbuffered))
        return true;
    sendQtMessageItems(QtWarningMsg, "Ошибка открытия файла для записи:", file.fileName(), file.errorString());
    return false;
}

bool createLogDirectory(const QDir& directory)
{
    if (directory.mkpath(directory.absolutePath()))
        return true;
    sendQtMessageItems(QtWarningMsg, "Не удалось создать каталог для записи лога", directory.absolutePath());
    return false;
}

QString logTimeStamp()
{
    constexpr qint64 msPerS = 1000;
    const qint64 nowMs = QDateTime::currentMSecsSinceEpoch();
    const std::time_t now = nowMs / msPerS;
    // Not by way of QTime, which reads the time zone's file each time.
    std::tm local;
    localtime_r(&now, &local);
    char text[64]; // room for numbers that no clock shows
    std::snprintf(text, sizeof text, "%02d:%02d:%02d.%03d", local.tm_hour, local.tm_min, local.tm_sec,
                  static_cast<int>(nowMs % msPerS));
    return QString::fromLatin1(text);
}

void reportLogWriteError(const QFile& file)
{
    sendQtMessageItems(QtWarningMsg, "Не удалось записать данные в лог файл. Ошибка записи. ", file.errorString());
}
