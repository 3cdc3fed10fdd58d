#include "com/formats/comsettings.h"

#include <QDataStream>

namespace {

// One by one, without reserving room for the announced count, which may be absurd.
QStringList readStrings(QDataStream& stream)
{
    QStringList strings;
    quint32 count = 0;
    stream >> count;
    for (quint32 i = 0; i < count && stream.status() == QDataStream::Ok; ++i) {
        QString string;
        stream >> string;
        strings.append(string);
    }
    return strings;
}

} // namespace

bool operator==(const ComPortSettings& left, const ComPortSettings& right)
{
    return left.enabled == right.enabled && left.portName == right.portName && left.initString == right.initString &&
           left.baudRate == right.baudRate && left.flowControl == right.flowControl &&
           left.dataBits == right.dataBits && left.parity == right.parity && left.stopBits == right.stopBits;
}

QDataStream& operator<<(QDataStream& stream, const ComPortSettings& settings)
{
    return stream << settings.enabled << settings.portName << settings.initString << settings.baudRate
                  << settings.flowControl << settings.dataBits << settings.parity << settings.stopBits;
}

QDataStream& operator>>(QDataStream& stream, ComPortSettings& settings)
{
    return stream >> settings.enabled >> settings.portName >> settings.initString >> settings.baudRate >>
           settings.flowControl >> settings.dataBits >> settings.parity >> settings.stopBits;
}

QByteArray AbonentComSettings::toByteArray() const
{
    QByteArray data;
    QDataStream stream(&data, QIODevice::WriteOnly);
    stream << formatVersion << phoneNumber << allowedPorts;
    return data;
}

RecordFault AbonentComSettings::read(const QByteArray& data)
{
    QDataStream stream(data);
    int version = 0;
    stream >> version;
    if (version != formatVersion)
        return RecordFault::otherVersion(version);
    stream >> phoneNumber;
    allowedPorts = readStrings(stream);
    if (stream.status() != QDataStream::Ok) {
        allowedPorts.clear();
        return RecordFault::damaged();
    }
    return RecordFault();
}

QString AbonentComSettings::fromByteArray(const QByteArray& data)
{
    return recordFaultText(read(data), formatVersion);
}

QString unescapeInitString(QString text)
{
    text.replace(QLatin1String("\\t"), QLatin1String("\t"));
    text.replace(QLatin1String("\\r"), QLatin1String("\r"));
    text.replace(QLatin1String("\\n"), QLatin1String("\n"));
    return text;
}

QString recordFaultText(const RecordFault& fault, int currentVersion)
{
    switch (fault.kind) {
    case RecordFault::None: break;
    case RecordFault::OtherVersion:
        return QStringLiteral("Версия настроек %1 не совпадает с текущей %2")
            .arg(QString::number(fault.version), QString::number(currentVersion));
    case RecordFault::Damaged: return QStringLiteral("Данные повреждены");
    }
    return QString();
}
