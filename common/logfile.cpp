#include "common/logfile.h"

#include <QCoreApplication>
#include <QDate>
#include <QTime>

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
    return QTime::currentTime().toString(QStringLiteral("hh:mm:ss.zzz"));
}

void reportLogWriteError(const QFile& file)
{
    sendQtMessageItems(QtWarningMsg, "Не удалось записать данные в лог файл. Ошибка записи. ", file.errorString());
}
