#include "host/installation/hostsettings.h"

#include "common/csettings.h"
#include "common/global.h"
#include "common/plantedlinks.h"
#include "host/installation/comrecords.h"
#include "host/installation/diskfile.h"

#include <QFile>
#include <QFileInfo>
#include <QSettings>
#include <QTextCodec>

namespace host {

namespace {

constexpr qint64 maxIniBytes = 1024 * 1024;

const QString nameKey = QStringLiteral("Host/name");
const QString keyFingerprintKey = QStringLiteral("Host/keyFingerprint");

// QSettings ignores what it does not understand: a file full of zeros reads without an error, as an
// empty one.
bool isSoundIni(const QByteArray& bytes)
{
    QTextCodec::ConverterState state;
    QTextCodec::codecForName("UTF-8")->toUnicode(bytes.constData(), bytes.size(), &state);
    if (bytes.trimmed().isEmpty() || bytes.contains('\0') || state.invalidChars > 0 || state.remainingChars > 0)
        return false;
    for (const QByteArray& line : bytes.split('\n')) {
        const QByteArray text = line.trimmed();
        const bool isComment = text.startsWith(';');
        const bool isSection = text.startsWith('[') && text.endsWith(']');
        if (!text.isEmpty() && !isComment && !isSection && (text.startsWith('[') || text.indexOf('=') <= 0))
            return false;
    }
    return true;
}

QString damagedIni(const QString& path)
{
    return QStringLiteral("%1 is damaged: put back a copy, or mend it by hand, or move it away and set the name again "
                          "(its [Host] section holds this installation's name)")
        .arg(path);
}

// An error text if the file exists and is damaged, cannot be read, or is not ours.
QString checkIni(const QString& path)
{
    if (isForeignLink(QFile::encodeName(path)))
        return QStringLiteral("%1 is a link that another user has made: remove it, and see what else was changed there")
            .arg(path);
    QFile file(path);
    if (!file.exists())
        return QString();
    if (!file.open(QIODevice::ReadOnly))
        return QStringLiteral("cannot read %1: %2").arg(path, file.errorString());
    return isSoundIni(file.read(maxIniBytes)) ? QString() : damagedIni(path);
}

// Whether the file could be read and written: QSettings itself has no texts for that.
QString settingsError(QSettings* settings)
{
    const QString path = settings->fileName();
    switch (settings->status()) {
    case QSettings::NoError: return QString();
    case QSettings::FormatError: return damagedIni(path);
    case QSettings::AccessError: break;
    }
    const QFileInfo file(path);
    if (file.exists() && !file.isReadable())
        return QStringLiteral("cannot read %1: check its permissions").arg(path);
    return QStringLiteral("cannot write %1: check the permissions and the room on the disk").arg(path);
}

// Writes the changes; returns an error text.
QString written(QSettings* settings)
{
    settings->sync();
    return settingsError(settings);
}

// The content of a file; empty if it does not exist.
QString readFile(const QString& path, std::optional<QByteArray>* bytes)
{
    const QString recovery = Global::recoverSaving(path);
    if (!recovery.isEmpty())
        return recovery;
    QFile file(path);
    if (!file.exists())
        return QString();
    if (!file.open(QIODevice::ReadOnly))
        return QStringLiteral("cannot read %1: %2").arg(path, file.errorString());
    *bytes = file.readAll();
    return QString();
}

// Nothing is written into a file that cannot be read.
QString saveIdentityValue(const QString& key, const QString& value)
{
    Identity identity;
    QString error = loadIdentity(&identity);
    if (error.isEmpty())
        error = settingsBarred(Global::generalSettingsFilePath());
    if (!error.isEmpty())
        return error;
    QSettings settings(Global::generalSettingsFilePath(), QSettings::IniFormat);
    settings.setIniCodec("UTF-8");
    settings.setValue(key, value);
    return written(&settings);
}

} // namespace

QString settingsBarred(const QString& path)
{
    const QString obstacle = obstacleToSettings(path);
    return obstacle.isEmpty()
               ? obstacle
               : QStringLiteral(
                     "cannot write %1: %2 is in the way; remove it unless a program of yours runs that made it")
                     .arg(path, obstacle);
}

QString loadIdentity(Identity* identity)
{
    if (!Global::makePath(Global::settingsDir()))
        return QStringLiteral("cannot create %1: check that you may write there")
            .arg(Global::settingsDir().absolutePath());
    // What cannot be read must not count as missing: it would be made anew.
    const QString damage = checkIni(Global::generalSettingsFilePath());
    if (!damage.isEmpty())
        return damage;
    QSettings settings(Global::generalSettingsFilePath(), QSettings::IniFormat);
    settings.setIniCodec("UTF-8");
    const QString error = settingsError(&settings);
    if (!error.isEmpty())
        return error;
    identity->name = settings.value(nameKey).toString();
    identity->keyFingerprint = settings.value(keyFingerprintKey).toString();
    return QString();
}

QString saveOwnName(const QString& name)
{
    return saveIdentityValue(nameKey, name);
}

QString saveKeyFingerprint(const QString& fingerprint)
{
    return saveIdentityValue(keyFingerprintKey, fingerprint);
}

QString loadComSettings(ChannelComSettings* settings)
{
    const QString path = Global::channelComSettingsFilePath();
    std::optional<QByteArray> bytes;
    QString error = readFile(path, &bytes);
    if (!error.isEmpty())
        return error;
    *settings = ChannelComSettings();
    if (bytes)
        error = readRecord(*bytes, settings);
    return error.isEmpty() ? QString() : QStringLiteral("%1: %2").arg(path, error);
}

QString saveComSettings(const ChannelComSettings& settings)
{
    return saveFile(Global::channelComSettingsFilePath(), settings.toByteArray());
}

} // namespace host
