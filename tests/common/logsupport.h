// What tests of settings and log share: the files of the installation looked at from outside,
// and a record of the messages on the Qt streams.
#pragma once

#include "rig/testroot.h"
#include "tests/common/printing.h"

#include <QDate>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QMutex>
#include <QMutexLocker>
#include <QStringList>
#include <QVector>

#include <fcntl.h>
#include <functional>
#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

namespace logtest {

inline QString rootPath(const QString& relative)
{
    return rig::installRoot() + QLatin1Char('/') + relative;
}

inline QByteArray contentOf(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

inline bool writeFile(const QString& path, const QByteArray& content = {})
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

// The permission bits of path, or -1 when nothing is there.
inline int modeOf(const QString& path)
{
    struct stat facts = {};
    return stat(QFile::encodeName(path).constData(), &facts) == 0 ? int(facts.st_mode & 07777) : -1;
}

// Makes the calling thread, and those it starts, obey permission bits even as the superuser.
inline void obeyPermissionBits()
{
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2] = {};
    syscall(SYS_capget, &header, data);
    data[0].effective &= ~((1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH));
    syscall(SYS_capset, &header, data);
}

// --- settings.ini -------------------------------------------------------------------------

inline QString settingsPath()
{
    return rootPath(QStringLiteral("settings/settings.ini"));
}

// An edit by another process, in its full length; always with a new time of modification.
inline void editSettings(const QByteArray& content)
{
    static int edits = 0;
    writeFile(settingsPath(), content);
    const timespec time{1000000000 + ++edits, 0};
    const timespec times[2] = {time, time};
    utimensat(AT_FDCWD, QFile::encodeName(settingsPath()).constData(), times, 0);
}

// What stands in settings.ini, "Group/key" to the text as written.
inline QMap<QString, QString> settingsOnDisk()
{
    QMap<QString, QString> found;
    QString group;
    for (const QString& line : QString::fromUtf8(contentOf(settingsPath())).split(QLatin1Char('\n'))) {
        const int equals = line.indexOf(QLatin1Char('='));
        if (line.startsWith(QLatin1Char('[')))
            group = line.mid(1, line.size() - 2);
        else if (equals > 0)
            found.insert(group + QLatin1Char('/') + line.left(equals), line.mid(equals + 1));
    }
    return found;
}

// The content of an INI file with this one key.
inline QByteArray iniOf(const QString& key, const QString& value)
{
    const int slash = key.indexOf(QLatin1Char('/'));
    return (QLatin1Char('[') + key.left(slash) + QStringLiteral("]\n") + key.mid(slash + 1) + QLatin1Char('=') + value +
            QLatin1Char('\n'))
        .toUtf8();
}

// --- The log ------------------------------------------------------------------------------

inline QString logDirPath(int level = 0)
{
    return rootPath(QStringLiteral("data/%1/log").arg(level));
}

// The day on which this was first asked: what a test means by today.
inline QDate firstDay()
{
    static const QDate day = QDate::currentDate();
    return day;
}

inline QString logPath(const QDate& date = firstDay(), int level = 0)
{
    return logDirPath(level) + QStringLiteral("/test_operator_") + date.toString(QStringLiteral("yyyy.MM.dd")) +
           QStringLiteral(".log");
}

// The lines, each without its line end; a last one without a line end counts too.
inline QStringList logLines(const QString& path = logPath())
{
    QStringList lines = QString::fromUtf8(contentOf(path)).split(QLatin1Char('\n'));
    if (lines.last().isEmpty())
        lines.removeLast();
    return lines;
}

// The texts that stand behind stamp and label in the lines of column 1.
inline QStringList logTexts(const QString& path = logPath())
{
    QStringList texts;
    for (const QString& line : logLines(path))
        texts.append(line.mid(12 + 1 + 25 + 4));
    return texts;
}

// The user of the log's name is fixed; an empty log stands there, so that no summary comes.
inline void beginEmptyLog()
{
    qputenv("USER", "operator");
    writeFile(logPath());
}

// --- Messages -----------------------------------------------------------------------------

struct Message
{
    QtMsgType type;
    QString text;
    QString category;
};

// Takes the messages on the Qt streams while it lives. One at a time.
class MessageRecorder
{
public:
    MessageRecorder()
    {
        current() = this;
        m_previous = qInstallMessageHandler(handle);
    }
    ~MessageRecorder()
    {
        qInstallMessageHandler(m_previous);
        current() = nullptr;
    }
    MessageRecorder(const MessageRecorder&) = delete;
    MessageRecorder& operator=(const MessageRecorder&) = delete;

    // Called with each message after it was recorded.
    void setHandler(std::function<void(const Message&)> handler) { m_handler = std::move(handler); }

    QVector<Message> messages() const
    {
        QMutexLocker locker(&m_mutex);
        return m_messages;
    }
    // The texts of one type, in order.
    QStringList texts(QtMsgType type) const
    {
        QStringList found;
        for (const Message& message : messages()) {
            if (message.type == type)
                found.append(message.text);
        }
        return found;
    }
    void clear()
    {
        QMutexLocker locker(&m_mutex);
        m_messages.clear();
    }

private:
    static MessageRecorder*& current()
    {
        static MessageRecorder* recorder = nullptr;
        return recorder;
    }
    static void handle(QtMsgType type, const QMessageLogContext& context, const QString& text)
    {
        MessageRecorder* const self = current();
        const Message message{type, text, QString::fromLatin1(context.category)};
        {
            QMutexLocker locker(&self->m_mutex);
            self->m_messages.append(message);
        }
        if (self->m_handler)
            self->m_handler(message);
    }

    mutable QMutex m_mutex;
    QVector<Message> m_messages;
    std::function<void(const Message&)> m_handler;
    QtMessageHandler m_previous;
};

} // namespace logtest
