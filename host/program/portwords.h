// The words by which the settings of a serial port are given and shown.
#pragma once

#include <QString>
#include <QVector>

namespace host {

struct PortWord
{
    const char* word;
    int value; // as in the enumerations of QSerialPort
};

extern const QVector<PortWord> flowControlWords;
extern const QVector<PortWord> parityWords;
extern const QVector<PortWord> stopBitsWords;
extern const QVector<PortWord> dataBitsWords;

[[nodiscard]] QString wordOf(const QVector<PortWord>& words, int value);
bool valueOf(const QVector<PortWord>& words, const QString& text, qint32* value); // false: there is no such word

// "none, hardware, software"
[[nodiscard]] QString flowControlChoices();
[[nodiscard]] QString parityChoices();
[[nodiscard]] QString stopBitsChoices();
[[nodiscard]] QString dataBitsChoices();

// "11 to 16384"
[[nodiscard]] QString packetSizeRange();

} // namespace host
