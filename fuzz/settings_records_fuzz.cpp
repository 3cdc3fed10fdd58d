// The two settings records: any bytes are read without harm and in bounded memory, and
// what was read without an error is written as the same bytes again.
#include "com/formats/ccomsettings.h"
#include "com/formats/comsettings.h"
#include "fuzz/check.h"
#include "fuzz/input.h"

#include <QByteArray>

#include <algorithm>
#include <cstdint>

using fuzz::require;

namespace {

constexpr int boolBytes = 1;
constexpr int intBytes = 4;
constexpr int leastPortBytes = boolBytes + 2 * intBytes + 5 * intBytes; // two empty strings, five numbers
constexpr int leastStringBytes = intBytes;

int bytesOf(const QString& string)
{
    return string.size() * 2;
}

// Zero if the data end before it.
int intAt(const QByteArray& data, int at)
{
    if (data.size() < at + intBytes)
        return 0;
    quint32 value = 0;
    for (int i = 0; i < intBytes; ++i)
        value = value << 8 | static_cast<quint8>(data.at(at + i));
    return static_cast<int>(value);
}

int versionOf(const QByteArray& data)
{
    return intAt(data, 0);
}

void checkError(const QString& error, const QByteArray& data, int version)
{
    if (versionOf(data) != version) {
        require(error == QStringLiteral("Версия настроек ") + QString::number(versionOf(data)) +
                             QStringLiteral(" не совпадает с текущей ") + QString::number(version),
                "another version is told");
    } else {
        require(error.isEmpty() || error == QStringLiteral("Данные повреждены"), "the other error is damage");
    }
}

// A bool may come as any byte but goes out as 0 or 1.
bool isRewritten(const QByteArray& data, const QByteArray& again)
{
    return data.size() >= again.size() &&
           std::equal(again.cbegin(), again.cend(), data.cbegin(),
                      [](char out, char in) { return out == in || (out == 1 && in != 0); });
}

void readChannel(const QByteArray& data)
{
    ChannelComSettings settings;
    settings.ports.append(ComPortSettings());
    settings.packetSize = 77;
    const QString error = settings.fromByteArray(data);
    checkError(error, data, 3);
    if (versionOf(data) != 3)
        require(settings.ports.isEmpty() && settings.packetSize == 77, "another version gives nothing");

    require(settings.ports.size() <= std::max(4096, data.size() / leastPortBytes + 1), "ports are bounded by the data");
    int bytes = 0;
    for (const ComPortSettings& port : settings.ports)
        bytes += bytesOf(port.portName) + bytesOf(port.initString);
    require(bytes <= data.size(), "texts are bounded by the data");

    if (!error.isEmpty())
        settings.ports = settings.ports.mid(0, 64); // the others are alike
    const QByteArray again = settings.toByteArray();
    ChannelComSettings copy;
    require(copy.fromByteArray(again).isEmpty(), "what was written is read");
    require(copy.ports == settings.ports && copy.packetSize == settings.packetSize, "the record is what it was");
    require(copy.toByteArray() == again, "null and empty texts stay apart");
    if (error.isEmpty() && intAt(data, intBytes) >= 0)
        require(isRewritten(data, again), "the bytes are the described ones");
    for (const ComPortSettings& port : settings.ports)
        unescapeInitString(port.initString);
}

void readAbonent(const QByteArray& data)
{
    AbonentComSettings settings;
    settings.phoneNumber = QStringLiteral("before");
    settings.allowedPorts.append(QStringLiteral("before"));
    const QString error = settings.fromByteArray(data);
    checkError(error, data, 4);
    if (versionOf(data) != 4)
        require(settings.phoneNumber == QStringLiteral("before") && settings.allowedPorts.size() == 1,
                "another version changes nothing");
    else
        require(error.isEmpty() || settings.allowedPorts.isEmpty(), "damaged data allow no port");

    if (versionOf(data) == 4) {
        require(settings.allowedPorts.size() <= data.size() / leastStringBytes, "ports are bounded by the data");
        int bytes = bytesOf(settings.phoneNumber);
        for (const QString& port : settings.allowedPorts)
            bytes += bytesOf(port);
        require(bytes <= data.size(), "texts are bounded by the data");
    }
    const QByteArray again = settings.toByteArray();
    AbonentComSettings copy;
    require(copy.fromByteArray(again).isEmpty(), "what was written is read");
    require(copy.phoneNumber == settings.phoneNumber && copy.allowedPorts == settings.allowedPorts,
            "the record is what it was");
    require(copy.toByteArray() == again, "null and empty texts stay apart");
    if (error.isEmpty())
        require(data.startsWith(again), "the bytes are the described ones");
}

} // namespace

extern "C" __attribute__((visibility("default"))) int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::Input input(data, size);
    const int choice = input.byte();
    QByteArray bytes = input.rest();
    // From damaged data thousands of ports may be read, which takes a hundred times as long. So most
    // inputs announce few.
    if (choice >= 4 && bytes.size() >= 2 * intBytes) {
        bytes.replace(intBytes, intBytes - 1, QByteArray(intBytes - 1, '\0'));
        bytes[2 * intBytes - 1] = static_cast<char>(bytes.at(2 * intBytes - 1) & 15);
    }
    if (choice % 2 == 0)
        readChannel(bytes);
    else
        readAbonent(bytes);
    return 0;
}
