#include "host/program/portwords.h"

#include "com/formats/ccomsettings.h"

#include <QStringList>

namespace host {

const QVector<PortWord> flowControlWords{{"none", 0}, {"hardware", 1}, {"software", 2}};
const QVector<PortWord> parityWords{{"none", 0}, {"even", 2}, {"odd", 3}, {"space", 4}, {"mark", 5}};
const QVector<PortWord> stopBitsWords{{"1", 1}, {"1.5", 3}, {"2", 2}};
const QVector<PortWord> dataBitsWords{{"5", 5}, {"6", 6}, {"7", 7}, {"8", 8}};

namespace {

QString listOf(const QVector<PortWord>& words)
{
    QStringList list;
    for (const PortWord& word : words)
        list.append(QString::fromLatin1(word.word));
    return list.join(QStringLiteral(", "));
}

} // namespace

QString wordOf(const QVector<PortWord>& words, int value)
{
    for (const PortWord& word : words) {
        if (word.value == value)
            return QString::fromLatin1(word.word);
    }
    return QString::number(value);
}

bool valueOf(const QVector<PortWord>& words, const QString& text, qint32* value)
{
    for (const PortWord& word : words) {
        if (text == QLatin1String(word.word)) {
            *value = word.value;
            return true;
        }
    }
    return false;
}

QString flowControlChoices()
{
    return listOf(flowControlWords);
}

QString parityChoices()
{
    return listOf(parityWords);
}

QString stopBitsChoices()
{
    return listOf(stopBitsWords);
}

QString dataBitsChoices()
{
    return listOf(dataBitsWords);
}

QString packetSizeRange()
{
    return QStringLiteral("%1 to %2")
        .arg(QString::number(ChannelComSettings::smallestPacketSize),
             QString::number(ChannelComSettings::largestPacketSize));
}

} // namespace host
