// Who can change an installation, judged by owners and modes.
#include "common/global.h"
#include "host/installation/privacy.h"

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>

#include <sys/stat.h>
#include <unistd.h>

namespace host {

namespace {

constexpr mode_t othersWrite = S_IWGRP | S_IWOTH;

QString ownerTrouble(const QString& path, const struct stat& status)
{
    if (status.st_uid == 0 || status.st_uid == geteuid())
        return QString();
    return QStringLiteral("%1 belongs to user %2, who can change it: \"chown %3 %4\" ends that")
        .arg(path, QString::number(status.st_uid), QString::number(geteuid()), shellWord(path));
}

QString modeTrouble(const QString& path, const QString& mode, const QString& cured)
{
    return QStringLiteral("others may write in %1: \"chmod %2 %3\" ends that").arg(path, mode, shellWord(cured));
}

// What other users could change below a directory that they may enter.
QString troubleWithin(const QString& top, gid_t trustedGroup)
{
    QDirIterator entries(top, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                         QDirIterator::Subdirectories);
    while (entries.hasNext()) {
        const QString path = entries.next();
        struct stat status
        {
        };
        if (::lstat(QFile::encodeName(path).constData(), &status) != 0 || S_ISLNK(status.st_mode))
            continue; // removed meanwhile, or a link, whose mode says nothing
        const QString owner = ownerTrouble(path, status);
        if (!owner.isEmpty())
            return owner;
        const bool groupWrites = (status.st_mode & S_IWGRP) && status.st_gid != trustedGroup;
        if (groupWrites || (status.st_mode & S_IWOTH))
            return modeTrouble(path, QStringLiteral("go-rwx"), top);
    }
    return QString();
}

// A tree of settings or data. If it has the set-group-ID bit, it was shared with its group on purpose.
QString treeTrouble(const QString& path)
{
    struct stat status
    {
    };
    if (::stat(QFile::encodeName(path).constData(), &status) != 0)
        return QString(); // missing: it is made private
    const QString owner = ownerTrouble(path, status);
    if (!owner.isEmpty())
        return owner;
    const bool isGiven = status.st_mode & S_ISGID;
    const mode_t strangers = isGiven ? S_IRWXO : S_IRWXG | S_IRWXO;
    if (status.st_mode & strangers & othersWrite)
        return modeTrouble(path, isGiven ? QStringLiteral("o-rwx") : QStringLiteral("go-rwx"), path);
    if ((status.st_mode & strangers & (S_IXGRP | S_IXOTH)) == 0)
        return QString(); // nobody can enter it, so the modes of its content do not matter
    return troubleWithin(path, isGiven ? status.st_gid : static_cast<gid_t>(-1));
}

// A file or directory whose content we run or trust, and the directories above it: somebody who can
// rename one of them can put another in its place. In a directory with the sticky bit, like /tmp, only
// the owner of an entry can rename it.
void addPathTroubles(const QString& path, bool isAbove, QStringList* troubles)
{
    const auto add = [troubles](const QString& trouble) {
        if (!trouble.isEmpty() && !troubles->contains(trouble))
            troubles->append(trouble);
    };
    QString current = QFileInfo(path).canonicalFilePath();
    for (; !current.isEmpty(); isAbove = true) {
        struct stat status
        {
        };
        if (::stat(QFile::encodeName(current).constData(), &status) == 0) {
            add(ownerTrouble(current, status));
            const bool isSticky = isAbove && (status.st_mode & S_ISVTX);
            if ((status.st_mode & othersWrite) && !isSticky)
                add(modeTrouble(current, QStringLiteral("go-w"), current));
        }
        const QString parent = QFileInfo(current).path();
        if (parent == current)
            return;
        current = parent;
    }
}

} // namespace

QStringList installationTroubles()
{
    QStringList troubles;
    for (const QDir& dir : {Global::settingsDir(), Global::dataDir()}) {
        const QString path = QFileInfo(dir.absolutePath()).canonicalFilePath();
        const QString trouble = path.isEmpty() ? QString() : treeTrouble(path);
        if (!trouble.isEmpty())
            troubles.append(trouble);
        addPathTroubles(QFileInfo(path.isEmpty() ? QDir::cleanPath(dir.absolutePath()) : path).path(), true, &troubles);
    }
    addPathTroubles(QCoreApplication::applicationFilePath(), false, &troubles);
    const QDir plugins = Global::channelPluginsDir();
    addPathTroubles(plugins.absolutePath(), false, &troubles);
    for (const QString& name : plugins.entryList(QDir::Files | QDir::Hidden | QDir::System))
        addPathTroubles(plugins.absoluteFilePath(name), false, &troubles);
    return troubles;
}

} // namespace host
