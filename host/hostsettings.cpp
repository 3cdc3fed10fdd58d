#include "host/hostsettings.h"

#include "common/global.h"
#include "host/names.h"
#include "host/sessionframes.h"

#include <QDataStream>
#include <QFile>
#include <QRandomGenerator>
#include <QSettings>

namespace host {

namespace {

constexpr qint32 abonentsVersion = 1;
constexpr int minAbonentBytes = 3 * 4;

const QString nameKey = QStringLiteral("Host/name");
const QString installationIdKey = QStringLiteral("Host/installationId");

QString settingsError(QSettings* settings)
{
    settings->sync();
    return settings->status() == QSettings::NoError ? QString()
                                                    : QStringLiteral("cannot read or write %1").arg(settings->fileName());
}

// What a file holds; one that does not exist holds nothing.
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

} // namespace

QString loadIdentity(Identity* identity)
{
    if (!Global::makePath(Global::settingsDir()))
        return QStringLiteral("cannot create %1: check that you may write there").arg(Global::settingsDir().absolutePath());
    QSettings settings(Global::generalSettingsFilePath(), QSettings::IniFormat);
    settings.setIniCodec("UTF-8");
    identity->name = settings.value(nameKey).toString();
    identity->installationId = QByteArray::fromHex(settings.value(installationIdKey).toString().toLatin1());
    if (identity->installationId.size() != installationIdBytes) {
        identity->installationId.resize(installationIdBytes);
        QRandomGenerator::system()->generate(identity->installationId.begin(), identity->installationId.end());
        settings.setValue(installationIdKey, QString::fromLatin1(identity->installationId.toHex()));
    }
    return settingsError(&settings);
}

QString saveOwnName(const QString& name)
{
    Identity identity;
    const QString error = loadIdentity(&identity);
    if (!error.isEmpty())
        return error;
    QSettings settings(Global::generalSettingsFilePath(), QSettings::IniFormat);
    settings.setIniCodec("UTF-8");
    settings.setValue(nameKey, name);
    return settingsError(&settings);
}

QString loadComSettings(ComSettingsRecord* settings)
{
    const QString path = Global::channelComSettingsFilePath();
    std::optional<QByteArray> bytes;
    QString error = readFile(path, &bytes);
    if (!error.isEmpty())
        return error;
    *settings = ComSettingsRecord();
    if (bytes)
        error = readComSettings(*bytes, settings);
    return error.isEmpty() ? QString() : QStringLiteral("%1: %2").arg(path, error);
}

QString saveComSettings(const ComSettingsRecord& settings)
{
    return Global::safeSaving(Global::channelComSettingsFilePath(), writeComSettings(settings));
}

QString loadAbonents(QVector<Abonent>* abonents)
{
    const QString path = Global::abonentsSettingsFilePath();
    std::optional<QByteArray> bytes;
    const QString error = readFile(path, &bytes);
    abonents->clear();
    if (!error.isEmpty() || !bytes)
        return error;
    QDataStream stream(*bytes);
    qint32 version = 0;
    qint32 count = 0;
    stream >> version >> count;
    if (version != abonentsVersion)
        return QStringLiteral("%1: the format has version %2, this program knows version %3")
            .arg(path, QString::number(version), QString::number(abonentsVersion));
    QVector<Abonent> read;
    for (qint32 i = 0; i < count && count <= bytes->size() / minAbonentBytes; ++i) {
        Abonent abonent;
        stream >> abonent.name >> abonent.channelType >> abonent.channelData;
        read.append(abonent);
    }
    if (stream.status() != QDataStream::Ok || read.size() != count)
        return QStringLiteral("%1: the data is damaged").arg(path);
    *abonents = read;
    return QString();
}

QString saveAbonents(const QVector<Abonent>& abonents)
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream << abonentsVersion << static_cast<qint32>(abonents.size());
    for (const Abonent& abonent : abonents)
        stream << abonent.name << abonent.channelType << abonent.channelData;
    return Global::safeSaving(Global::abonentsSettingsFilePath(), bytes);
}

int findAbonent(const QVector<Abonent>& abonents, const QString& name)
{
    const QString key = abonentKey(name);
    for (int i = 0; i < abonents.size(); ++i) {
        if (abonentKey(abonents.at(i).name) == key)
            return i;
    }
    return -1;
}

} // namespace host
