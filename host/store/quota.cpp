#include "host/store/quota.h"

#include "host/installation/diskfile.h"
#include "host/store/messagerecord.h"

#include <QDateTime>
#include <QFile>

#include <dirent.h>
#include <fcntl.h>
#include <map>
#include <sys/stat.h>
#include <unistd.h>

namespace host {

namespace {

constexpr qint64 clockStepNs = 2000000000; // of the coarsest file system

qint64 changeTimeNs(const struct stat& facts)
{
    return static_cast<qint64>(facts.st_ctim.tv_sec) * 1000000000 + facts.st_ctim.tv_nsec;
}

// The files of one directory. Directories in it are not ours and are not counted.
Share shareOf(const QString& path)
{
    Share share;
    share.messages = 1;
    share.inodes = 1;
    DIR* const entries = ::opendir(QFile::encodeName(path).constData());
    if (!entries)
        return share;
    while (const dirent* const entry = ::readdir(entries)) {
        const QByteArray name(entry->d_name);
        struct stat facts = {};
        if (name == "." || name == ".." ||
            ::fstatat(::dirfd(entries), name.constData(), &facts, AT_SYMLINK_NOFOLLOW) != 0)
            continue;
        ++share.inodes;
        if (S_ISREG(facts.st_mode) && !name.startsWith('.')) // the small record counts as an inode only
            share.bytes += facts.st_size;
    }
    ::closedir(entries);
    return share;
}

Counted countOf(const QString& path)
{
    const MessageRecord record = MessageRecord::fromJson(loadRecord(path + QLatin1Char('/') + messageRecordName));
    Counted counted;
    counted.shareKey =
        record.id == 0 ? QString() : shareKey(record.sender); // from an unknown peer: counts only in the total
    counted.abonent = record.sender.abonent;
    counted.used = shareOf(path);
    return counted;
}

} // namespace

const QString unprovedPool = QStringLiteral("unproved/");

QString shareKey(const Peer& peer)
{
    return peer.isProved ? abonentKey(peer.abonent) : unprovedPool;
}

void DirectoryCount::refresh()
{
    QDir dir = m_dir;
    dir.refresh();
    QHash<QString, Entry> entries;
    for (const QString& name : dir.entryList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::NoSymLinks, QDir::Unsorted))
        count(name, &entries);
    m_entries = entries;
    m_sinceRefresh.start();
}

void DirectoryCount::add(const QString& name)
{
    count(name, &m_entries);
}

void DirectoryCount::count(const QString& name, QHash<QString, Entry>* entries) const
{
    const QString path = m_dir.absoluteFilePath(name);
    struct stat facts = {};
    if (::lstat(QFile::encodeName(path).constData(), &facts) != 0)
        return;
    const qint64 changedNs = changeTimeNs(facts);
    const auto known = m_entries.constFind(name);
    // The times of a file system have a step: a directory that was counted soon after a change may have
    // changed again with the same time.
    const bool isKnown =
        known != m_entries.constEnd() && known->changedNs == changedNs && known->countedNs - changedNs > clockStepNs;
    entries->insert(name,
                    isKnown ? *known : Entry{countOf(path), changedNs, QDateTime::currentMSecsSinceEpoch() * 1000000});
}

QVector<Counted> DirectoryCount::entries() const
{
    QVector<Counted> found;
    for (const Entry& entry : m_entries)
        found.append(entry.counted);
    return found;
}

Share operator+(const Share& a, const Share& b)
{
    return {a.bytes + b.bytes, a.messages + b.messages, a.inodes + b.inodes};
}

bool fits(const Share& wanted, const Share& limit)
{
    return wanted.bytes <= limit.bytes && wanted.messages <= limit.messages && wanted.inodes <= limit.inodes;
}

InboxUsage usageOf(const QVector<Counted>& counted, const InboxLimits& limits, const VolumeRoom& room)
{
    InboxUsage usage;
    usage.limits = limits;
    usage.room = room;
    std::map<QString, InboxUsage::AbonentShare> abonents;
    for (const Counted& one : counted) {
        usage.all = usage.all + one.used;
        if (one.shareKey == unprovedPool) {
            usage.unproved = usage.unproved + one.used;
        } else if (!one.shareKey.isEmpty()) {
            InboxUsage::AbonentShare& share = abonents[one.shareKey];
            share.abonent = one.abonent;
            share.used = share.used + one.used;
        }
    }
    for (const auto& [key, share] : abonents)
        usage.abonents.append(share);
    return usage;
}

} // namespace host
