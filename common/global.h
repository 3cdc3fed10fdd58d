// Where everything of an installation lives, safe files, names and display texts.
#pragma once

#include <QByteArray>
#include <QDir>
#include <QString>
#include <QStringList>

class QIODevice;

namespace Global {

// --- The installation ---------------------------------------------------------------------
// Every program is in <root>/<some directory>/; settings and data of the installation are beside
// that directory. No getter touches the disk. Any thread may call any of them as soon as the
// application object exists.

constexpr int secrecyLevels = 4; // data is split by secrecy level, 0 to 3

QDir applicationDir(); // the directory of the running executable
QDir installDir(); // its parent; computed once per process (not before there is an application object)

QDir settingsDir();
QString internalSettingsFilePath();
QString generalSettingsFilePath();
QString uiSettingsFilePath();
QString secrecySettingsFilePath();
QString titlesSettingsFilePath();
QString autoDeletionSettingsFilePath();
QString notificationsSettingsFilePath();
QString channelEnableSettingsFilePath();
QString channelIpSettingsFilePath();
QString channelComSettingsFilePath();
QString channelDedicatedSettingsFilePath();
QString abonentsSettingsFilePath();
QString groupsSettingsFilePath();
QDir notificationsAudioDir();

QDir messagesPluginsDir();
QDir settingsPluginsDir();
QDir channelSettingsPluginsDir();
QDir notificationPluginsDir();
QDir channelPluginsDir();
QDir windowPluginsDir();
QDir emergecyPatchDir();

QDir dataDir();
QDir dataSecrecyDir(int level);
QString abonentsStatesFilePath(); // always of level 0
QDir logDir(int level);
QString journalsFilePath(int level);
QDir journalsRenderDir(int level);
QDir messagesDir(int level);
QDir inputMessagesDir(int level);
QDir outputMessagesDir(int level);
QDir draftMessagesDir(int level);
QDir incompleteMessagesDir(int level);
QDir transitMessagesDir(int level);
QDir tasksDir(int level);
QDir tasksToInterfaceDir(int level);
QDir tasksToTransportDir(int level);

// Whether the process can create and remove a file in dir; tries it. Creates dir if it does not
// exist. Faults are reported on the Qt warning stream. Any thread.
bool checkAccess(const QDir& dir);

// checkAccess() of the data directory of level.
bool checkSecrecy(int level);

// The lowest level whose data directory the process may write to; 0, and a message on the Qt
// critical stream, when there is none. Tests the directories on every call. Any thread.
int currentSecrecy();

// A flag of the process that the host's components pass to each other; false at first. Any thread.
bool isEmergecyExit();
void setEmergecyExit(bool emergecyExit);

// --- Safe files ---------------------------------------------------------------------------
// Any thread; the caller must not save the same path twice at the same time. Failures are logged
// with the label "Global".

// Replaces the content of path by data, creating its directory if it is missing: writes
// "<path>.new", syncs it to the disk and swaps it in. Returns an empty string, or a text for the
// user. Whatever fails, and wherever the process is killed, the complete old or new content is
// under path, or under "<path>.old" (see recoverSaving).
QString safeSaving(const QString& path, const QByteArray& data);

// Only the swap: syncs the complete file newPath (on the same file system) and puts it in the place
// of path. On failure newPath stays where it is.
QString safeSaving(const QString& path, const QString& newPath);

// Puts a file back that a crash in the middle of a swap left under its side name. Call it at
// start, before anything saves to path. The rule: if path is missing and the file "<path>.old"
// exists, it is renamed to path. A backup is only made by renaming a complete target, so it is
// always complete. "<path>.new" may be the incomplete beginning of a later save, which was not
// reported as done: it is never used, and the next save overwrites it. If path exists, nothing is
// changed: it is complete, and the next save removes a left-over backup. Returns an empty string (also when there was
// nothing to do), or a text for the user; *recovered, when given, tells whether a file was put back.
QString recoverSaving(const QString& path, bool* recovered = nullptr);

// recoverSaving() for every backup in dir (not in its subdirectories). Returns the paths put back.
QStringList recoverSavings(const QDir& dir);

// Writes all of data, waiting for a slow device for at most timeoutMs milliseconds; 0 stands for
// the setting "Details/maxWritingTime", a negative value for no limit. True when the device
// accepted every byte. The calling thread must be the device's.
bool writeData(QIODevice& device, const QByteArray& data, int timeoutMs);

// Creates dir with all its parents and gives every directory that it created the permissions of
// the setting "Permissions/dirPermissions". Directories that exist are not changed. False if dir
// could not be created or permissions could not be set.
bool makePath(const QDir& dir);

// Gives the file the permissions of the setting "Permissions/filePermissions".
bool setFilePermissions(const QString& path);

// --- Names of messages and tasks ----------------------------------------------------------
// One thread only. Nothing is created. In each directory a process continues from the last name
// that it gave there itself.

// A free name of eight digits for a message directory in dir, or an empty string when the next
// 100 names are taken.
QString nextMessageDirName(const QDir& dir);

// A free name "<eight digits>.task" in dir, or a random one when the next 99 are taken.
QString nextTaskFileName(const QDir& dir);

// --- Texts --------------------------------------------------------------------------------
// Pure functions, for any thread, except the last two.

QString sizeString(const qint64& bytes); // "1.5 КБайт"; units of 1024
QString speedStringBits(const qint64& bytesPerSecond); // "12.0 Кбит/с"; units of 1024
QString speedString(const qint64& bytesPerSecond); // "1.5 КБайт/с (12.0 Кбит/с)"
QString timeStringSec(const qint64& seconds); // "59 сек.", "1 м. 0 сек.", "25 ч. 0 м."

// The Russian plural of n: 1, 21: one; 2 to 4, 22: few; 0, 5, 11 and negative numbers: many.
QString declension(int n, const QString& one, const QString& few, const QString& many);

// At most max characters of text and "..."; text itself where that would not be shorter.
QString cut(const QString& text, int max);

// Latin and Russian letters and digits of name, in lower case.
QString filterName(QString name);

// name without what a file name must not contain.
QString filterNotValidSymbols(QString name);

// The environment's USER as it was when first asked for. Any thread.
QString currentSystemUserName();

// Free bytes on the volume of path, which need not exist. Any thread.
qint64 diskFreeSpace(const QString& path);

} // namespace Global
