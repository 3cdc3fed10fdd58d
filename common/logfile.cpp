#include "common/logfile.h"

#include "common/global.h"
#include "common/plantedlinks.h"
#include "common/qtmessages.h"

#include <QCoreApplication>
#include <QDate>
#include <QDateTime>

#include <atomic>
#include <cerrno>
#include <ctime>
#include <unistd.h>

namespace {

void putDigits(char* at, int count, int value)
{
    for (int i = count - 1; i >= 0; --i, value /= 10)
        at[i] = static_cast<char>('0' + value % 10);
}

// The variable TZ, or the zone's file, may change while the program runs. Checking that costs more
// than making a whole stamp.
void followTimeZone(qint64 nowMs)
{
    constexpr qint64 lookEveryMs = 2000;
    static std::atomic<qint64> lookedMs{0};
    if (qAbs(nowMs - lookedMs.load(std::memory_order_relaxed)) < lookEveryMs)
        return;
    lookedMs.store(nowMs, std::memory_order_relaxed);
    tzset();
}

} // namespace

void LogTarget::find()
{
    if (m_secrecy != -1)
        return;
    m_secrecy = Global::currentSecrecy();
    m_directory = Global::logDir(m_secrecy);
    const QString name =
        QStringLiteral("%1_%2_%3.log")
            .arg(QCoreApplication::applicationName(), Global::filterNotValidSymbols(Global::currentSystemUserName()),
                 QDate::currentDate().toString(QStringLiteral("yyyy.MM.dd")));
    m_filePath = m_directory.absoluteFilePath(name);
    m_encodedPath = QFile::encodeName(m_filePath);
}

ExistingLog::ExistingLog(const QByteArray& encodedPath) : m_descriptor(openExistingForAppending(encodedPath)) {}

ExistingLog::~ExistingLog()
{
    if (m_descriptor >= 0)
        ::close(m_descriptor);
}

qint64 writeToLog(int descriptor, const char* data, qint64 size)
{
    qint64 written = 0;
    while (written < size) {
        const ssize_t count = ::write(descriptor, data + written, static_cast<std::size_t>(size - written));
        if (count < 0 && errno == EINTR)
            continue;
        if (count == 0)
            errno = EIO; // refused without a reason
        if (count <= 0)
            break;
        written += count;
    }
    return written > 0 || size == 0 ? written : -1;
}

bool openLog(QFile& file)
{
    const QString path = file.fileName(); // a file that is opened by its descriptor forgets it
    const int descriptor = openForAppending(QFile::encodeName(path));
    const QString error = qt_error_string(errno);
    if (descriptor >= 0 &&
        file.open(descriptor, QIODevice::Append | QIODevice::Unbuffered, QFileDevice::AutoCloseHandle))
        return true;
    sendQtMessageItems(QtWarningMsg, "Ошибка открытия файла для записи:", path, error);
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
    const qint64 ms = (nowMs % msPerS + msPerS) % msPerS; // of a clock before 1970 too
    followTimeZone(nowMs);
    const std::time_t now = (nowMs - ms) / msPerS;
    // Not with QTime, which reads the time zone's file each time, nor with printf's formats, which
    // cost more than the rest of a line's layout.
    std::tm local;
    localtime_r(&now, &local);
    char text[] = "hh:mm:ss.zzz";
    putDigits(text, 2, local.tm_hour);
    putDigits(text + 3, 2, local.tm_min);
    putDigits(text + 6, 2, local.tm_sec);
    putDigits(text + 9, 3, static_cast<int>(ms));
    return QString::fromLatin1(text, sizeof text - 1);
}

void reportLogWriteError(const QString& reason)
{
    sendQtMessageItems(QtWarningMsg, "Не удалось записать данные в лог файл. Ошибка записи. ", reason);
}
