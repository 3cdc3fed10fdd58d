#include "com/worker/portsetup.h"

#include "com/modem/modemdialogue.h"
#include "com/worker/portreports.h"

#include <QSerialPort>

void configurePort(QSerialPort& port, const ComPortSettings& settings, const PortReports& reports)
{
    const auto check = [&](bool isSet, const QString& failure) {
        if (isSet)
            return;
        const QString text = failure.arg(port.errorString());
        PortReports::writeLog(text, DebugAlways);
        reports.addError(text);
    };
    check(port.setDataTerminalReady(true), QStringLiteral("Не удалось установить сигнал DTR для COM порта. %1"));
    check(port.setBaudRate(settings.baudRate), QStringLiteral("Не удалось изменить скорость COM порта. %1"));
    check(port.setFlowControl(static_cast<QSerialPort::FlowControl>(settings.flowControl)),
          QStringLiteral("Не удалось изменить управление потоком COM порта. %1"));
    check(port.setDataBits(static_cast<QSerialPort::DataBits>(settings.dataBits)),
          QStringLiteral("Не удалось изменить биты данных COM порта. %1"));
    check(port.setParity(static_cast<QSerialPort::Parity>(settings.parity)),
          QStringLiteral("Не удалось изменить четность COM порта. %1"));
    check(port.setStopBits(static_cast<QSerialPort::StopBits>(settings.stopBits)),
          QStringLiteral("Не удалось изменить стоповые биты COM порта. %1"));
}

void sendInitString(QSerialPort& port, const QString& initString, const PortReports& reports)
{
    if (initString.isEmpty())
        return;
    reports.addEvent(QStringLiteral("Отправка строки инициализации: %1").arg(initString));
    PortReports::writeLog(QStringLiteral("Запись команды: %1").arg(initString), DebugTransportComAtCommands);
    writeCommand(port, initCommand(initString), commandWriteWaitMs);
}
