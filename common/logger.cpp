#include "common/logger.h"

#include "common/cancelguard.h"
#include "common/csettings.h"
#include "common/csysteminfo.h"
#include "common/functiondebug.h"
#include "common/logfile.h"
#include "common/plantedlinks.h"
#include "common/qtmessages.h"

#include <QDebug>
#include <QMutexLocker>
#include <QScopedValueRollback>
#include <QStringBuilder>
#include <QStringList>
#include <QThread>

#include <atomic>
#include <cerrno>
#include <memory>

static_assert(int(DebugMessagesLock) == lastDebugCategory && int(DebugIpcData) == int(Setting::DebugIpcData) &&
                  int(DebugTransportComPackets) == int(Setting::DebugTransportComPackets),
              "the levels are those of the settings' categories");

namespace {

constexpr int labelWidth = 25;
constexpr int timeWidth = 12;
constexpr int tabWidth = 4;
constexpr int moreWriteAttempts = 10;

std::atomic<DebugData*> gDebugData{nullptr}; // never freed: the host may hold it

thread_local bool isWriting = false; // this thread holds the record's mutex to write

DebugData* currentRecord()
{
    if (DebugData* data = gDebugData.load(std::memory_order_acquire))
        return data;
    auto data = std::make_unique<DebugData>();
    DebugData* nothing = nullptr;
    if (gDebugData.compare_exchange_strong(nothing, data.get()))
        return data.release();
    return nothing;
}

bool isSwitchedOn(DebugLevel level)
{
    // Full tracing switches every category on.
    return level == DebugAlways || gFunctionsDebuging.load(std::memory_order_relaxed) > 0 ||
           CSettings().debugCategory(level);
}

QString fittedLabel(const QString& label)
{
    const QString ellipsis = QStringLiteral("...");
    if (label.length() > labelWidth)
        return label.left(labelWidth - ellipsis.length()) + ellipsis;
    return label.rightJustified(labelWidth);
}

// The pieces are filled in one after another, the text last, so only markers in the text do no
// harm. The layout for labels that contain markers is odd, but intended. Without markers, joining
// the pieces gives the same result and costs much less.
QString formattedLine(const QString& time, const QString& label, const QString& indentation, const QString& part)
{
    if (!label.contains(QLatin1Char('%')))
        return time % QLatin1Char(' ') % label % indentation % part % QLatin1Char('\n');
    return QStringLiteral("%1 %2%3%4\n").arg(time).arg(label).arg(indentation).arg(part);
}

QStringList formattedParts(const QString& label, const QString& text, int column)
{
    const QString indentation(column * tabWidth, QLatin1Char(' '));
    QStringList parts = text.split(QLatin1Char('\n'));
    bool isStamped = false;
    for (QString& part : parts) {
        if (part.isEmpty())
            continue;
        if (isStamped) {
            part = formattedLine(QString(timeWidth, QLatin1Char(' ')), QString(labelWidth, QLatin1Char(' ')),
                                 indentation, part);
        } else {
            part = formattedLine(logTimeStamp(), fittedLabel(label), indentation, part);
            isStamped = true;
        }
    }
    return parts;
}

int tabLevel(DebugData& data)
{
    QThread* const thread = QThread::currentThread();
    QMutexLocker locker(&data.mutex);
    for (const Tabulation& row : qAsConst(data.tabs)) {
        if (row.thread == thread)
            return row.level;
    }
    for (Tabulation& row : data.tabs) {
        if (!row.thread) {
            row.thread = thread;
            return row.level;
        }
    }
    data.tabs.append({thread, data.tabs.size() + 1});
    return data.tabs.size();
}

// The writing part of debug().
class LogWriter
{
public:
    // Values that write() needs and that are read once per process, when they are first needed.
    enum Need
    {
        NeedNothing = 0,
        NeedDirPermissions = 1,
        NeedFilePermissions = 2
    };

    // Call it under the record's mutex. Returns a set of Need; if it is not empty, nothing was written.
    int write(const QStringList& parts);
    // Call it without the mutex: settings may have to wait, and Qt may report something about them.
    void read(int needs);

private:
    int needs() const;
    bool open(QFile& file);
    bool makeDirectory();
    void giveDirectoryPermissions();
    void beginFile(QFile& file);
    void writeParts(int descriptor, const QStringList& parts);
    bool writeAll(int descriptor, const QByteArray& bytes);

    // Used under the mutex only.
    LogTarget m_target;
    QString m_newDirectory; // made, its permissions not yet given; empty: none
    // 0: not read yet.
    std::atomic<int> m_dirPermissions{0};
    std::atomic<int> m_filePermissions{0};
};

LogWriter& logWriter()
{
    // Never freed: logging continues while static objects are destroyed.
    static LogWriter* const writer = new LogWriter;
    return *writer;
}

int LogWriter::write(const QStringList& parts)
{
    m_target.find();
    const ExistingLog log(m_target.encodedPath());
    if (log.isOpen()) {
        writeParts(log.descriptor(), parts);
        return NeedNothing;
    }
    if (!makeDirectory()) {
        m_target.forget();
        return NeedNothing;
    }
    if (const int missing = needs())
        return missing;
    giveDirectoryPermissions();
    QFile file(m_target.filePath());
    if (open(file))
        writeParts(file.handle(), parts);
    else
        m_target.forget();
    return NeedNothing;
}

int LogWriter::needs() const
{
    int missing = NeedNothing;
    if (m_dirPermissions == 0 && !m_newDirectory.isEmpty())
        missing |= NeedDirPermissions;
    if (m_filePermissions == 0 && !QFile::exists(m_target.filePath()))
        missing |= NeedFilePermissions;
    return missing;
}

void LogWriter::read(int needs)
{
    if (needs & NeedDirPermissions)
        m_dirPermissions = CSettings().dirPermissions();
    if (needs & NeedFilePermissions)
        m_filePermissions = CSettings().filePermissions();
}

void LogWriter::writeParts(int descriptor, const QStringList& parts)
{
    for (const QString& part : parts) {
        if (!writeAll(descriptor, part.isEmpty() ? QByteArrayLiteral("\n") : part.toUtf8()))
            m_target.forget();
    }
}

bool LogWriter::open(QFile& file)
{
    const bool isNew = !file.exists();
    if (!openLog(file))
        return false;
    if (isNew)
        beginFile(file);
    return true;
}

bool LogWriter::makeDirectory()
{
    const QDir& directory = m_target.directory();
    if (directory.exists())
        return true;
    if (!createLogDirectory(directory))
        return false;
    m_newDirectory = directory.absolutePath();
    return true;
}

void LogWriter::giveDirectoryPermissions()
{
    if (m_newDirectory.isEmpty())
        return;
    QString error;
    if (!changePermissions(m_newDirectory, QFileDevice::Permissions(m_dirPermissions.load()), &error))
        sendQtMessageItems(QtDebugMsg, "Не удалось изменить права доступа для каталога", m_newDirectory, error);
    m_newDirectory.clear();
}

void LogWriter::beginFile(QFile& file)
{
    if (!writeAll(file.handle(), CSystemInfo::summaryInfo().toUtf8()))
        m_target.forget();
    // Unread only when the file went this very moment.
    if (m_filePermissions != 0 && !file.setPermissions(QFileDevice::Permissions(m_filePermissions.load())))
        sendQtMessageItems(QtWarningMsg, "Не удалось изменить права доступа для файла:", m_target.filePath(),
                           file.errorString());
}

// False if the file refused the bytes. Bytes that the file has not accepted after some attempts
// are dropped without a message.
bool LogWriter::writeAll(int descriptor, const QByteArray& bytes)
{
    qint64 written = writeToLog(descriptor, bytes.constData(), bytes.size());
    if (written < 0) {
        reportLogWriteError(qt_error_string(errno));
        return false;
    }
    for (int attempt = 0; attempt < moreWriteAttempts && written < bytes.size(); ++attempt) {
        const qint64 more = writeToLog(descriptor, bytes.constData() + written, bytes.size() - written);
        if (more > 0)
            written += more;
    }
    return true;
}

int writeLocked(DebugData& data, const QStringList& parts)
{
    QMutexLocker locker(&data.mutex);
    const QScopedValueRollback<bool> writing(isWriting, true);
    return logWriter().write(parts);
}

} // namespace

void LoggerData::initDebug(DebugData* data)
{
    gDebugData.store(data ? data : new DebugData, std::memory_order_release);
}

DebugData* LoggerData::debugData()
{
    return gDebugData.load(std::memory_order_acquire);
}

void debug(QString label, const QString& text, DebugLevel level, DebugFlag flag)
{
    CancelGuard cancelGuard;
    // Qt itself may warn about a file while the mutex is held, and the message handler log that.
    if (isWriting) {
        writeToStandardError(label + QLatin1Char(' ') + text);
        return;
    }
    DebugData& data = *currentRecord();
    if (!isSwitchedOn(level))
        return;
    if (!(flag & DebugFlagFileOnly))
        qDebug() << label << text;
    const QStringList parts = formattedParts(label, text, tabLevel(data));
    // A message handler may log: nothing is sent to it before the mutex is free again.
    MessageHold messageHold;
    while (const int needs = writeLocked(data, parts))
        logWriter().read(needs);
}

int currentTabLevel()
{
    CancelGuard cancelGuard;
    return tabLevel(*currentRecord());
}

void deleteThreadTabLevel(QThread* thread)
{
    CancelGuard cancelGuard;
    DebugData* const data = LoggerData::debugData();
    if (!data)
        return;
    QMutexLocker locker(&data->mutex);
    for (Tabulation& row : data->tabs) {
        if (row.thread == thread) {
            row.thread = nullptr;
            return;
        }
    }
}
