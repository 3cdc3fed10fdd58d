#include "host/installation/comrecords.h"

namespace host {

namespace {

template <typename Record>
QString readWhole(const QByteArray& bytes, Record* record)
{
    Record read;
    const RecordFault fault = read.read(bytes);
    switch (fault.kind) {
    case RecordFault::None: break;
    case RecordFault::OtherVersion:
        return QStringLiteral("the format has version %1, this program knows version %2")
            .arg(QString::number(fault.version), QString::number(Record::formatVersion));
    case RecordFault::Damaged: return QStringLiteral("the data is damaged");
    }
    *record = read;
    return QString();
}

} // namespace

QString readRecord(const QByteArray& bytes, ChannelComSettings* settings)
{
    return readWhole(bytes, settings);
}

QString readRecord(const QByteArray& bytes, AbonentComSettings* abonent)
{
    return readWhole(bytes, abonent);
}

} // namespace host
