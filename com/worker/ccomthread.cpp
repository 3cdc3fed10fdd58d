#include "com/worker/ccomthread.h"

#include "com/modem/modemdialogue.h"
#include "com/modem/noanswerpause.h"
#include "com/port/modemport.h"
#include "com/port/portwait.h"
#include "com/worker/passstate.h"
#include "com/worker/portsetup.h"
#include "common/csettings.h"
#include "common/functiondebug.h"
#include "common/logger.h"
#include "plugin/api/cabstractprotocol.h"
#include "plugin/api/cchannelserver.h"
#include "plugin/api/comcalltexts.h"

#include <QElapsedTimer>
#include <QMutexLocker>

#include <utility>

namespace {

constexpr int passPauseMs = 10;
constexpr int pauseStepMs = 10;
constexpr int hangUpWriteWaitMs = 100;
constexpr int wrongAnswerPauseMs = 1000;
constexpr int lateAnswersMs = 300;
constexpr int lateAnswersStepMs = 10;
constexpr int afterHangUpPauseMs = 500;

// Shared by all ports: the more modems are silent, the less often each is asked.
NoAnswerPause noAnswerPause;

// The port's row in the host's table: removed when run() ends, whatever the reason.
class TableRow
{
public:
    TableRow(PortReports* reports, const QString& state) : m_reports(reports) { m_reports->enterTable(state); }
    ~TableRow() { m_reports->leaveTable(); }
    Q_DISABLE_COPY(TableRow)

private:
    PortReports* m_reports; // not owned
};

// An invalid QElapsedTimer counts as expired for Qt, but not here.
bool runsLongerThan(const QElapsedTimer& timer, int timeoutMs)
{
    return timer.isValid() && timer.elapsed() > timeoutMs;
}

} // namespace

CComThread::CComThread(const ComPortSettings& settings, CChannelServer* server)
    : m_settings(settings), m_server(server), m_reports(server, settings.portName), m_connection(server, &m_reports)
{
}

CComThread::~CComThread() = default;

QString CComThread::abonentName() const
{
    return m_connection.abonentName();
}

bool CComThread::tryConnect(const QString& abonentName, const QString& number)
{
    _CFunctionDebug trace(Q_FUNC_INFO);
    QMutexLocker locker(&m_mutex);
    if (state() != LineFree)
        return false;
    m_connection.setAbonentName(abonentName);
    m_number = number;
    m_state = CallRequested;
    return true;
}

void CComThread::disconnectFromAbonent()
{
    _CFunctionDebug trace(Q_FUNC_INFO);
    QMutexLocker locker(&m_mutex);
    m_connection.stop();
}

void CComThread::stop()
{
    _CFunctionDebug trace(Q_FUNC_INFO);
    QMutexLocker locker(&m_mutex);
    m_stopRequested = true;
    m_connection.stop();
}

void CComThread::keepAlive()
{
    _CFunctionDebug trace(Q_FUNC_INFO);
    m_connection.keepAlive();
}

void CComThread::run()
{
    _CFunctionDebug trace(Q_FUNC_INFO);
    QSerialPort port;
    connect(&port, &QSerialPort::errorOccurred,
            [this, &port](QSerialPort::SerialPortError code) { portErrorOccurred(port, code); });
    port.setPortName(m_settings.portName);
    TableRow row(&m_reports, QStringLiteral("Инициализация"));
    m_reports.setStatus(QStringLiteral("Открытие COM порта"));

    PassState pass{port, {}, {}, {}, false, false};
    for (;;) {
        msleep(passPauseMs);
        if (stopRequested())
            break;
        // Not a switch: a state that one handler sets is handled in the same pass.
        if (state() == PortClosed)
            openPort(pass);
        if (state() == WaitingForDevice)
            waitForDevice(pass);
        if (state() == CheckingDevice)
            checkDevice(pass);
        if (state() == LineFree)
            serveFreeLine(pass);
        if (state() == CallRequested)
            dial(pass);
        if (state() == WaitingForConnect)
            awaitConnect(pass);
        if (state() == ResettingModem)
            resetModem(pass);
        reopenClosedPort(pass);
        resetOnCarrier(pass);
        leaveFreeOnDsrLoss(pass);
    }
    hangUpOnExit(pass);
    // From here on destructors do input and output; being cancelled in one would abort the host.
    setTerminationEnabled(false);
    shutPort(port);
}

// --- the states -------------------------------------------------------------------------

void CComThread::openPort(PassState& pass)
{
    static const int openIntervalMs = CSettings().detailsTransportComOpenInterval();
    QSerialPort& port = pass.port;
    if (!port.open(QIODevice::ReadWrite)) {
        const QString text = QStringLiteral("Ошибка открытия COM порта. %1").arg(port.errorString());
        PortReports::writeLog(text, DebugAlways);
        m_reports.report(text);
        pause(openIntervalMs);
        return;
    }
    PortReports::writeLog(QStringLiteral("COM порт открыт"), DebugAlways);
    m_reports.report(QStringLiteral("COM порт открыт"));
    configurePort(port, m_settings, m_reports);
    sendInitString(port, m_settings.initString, m_reports);
    pass.mayAnswerLate = !m_settings.initString.isEmpty();
    pass.hasRung = false;
    pass.lines = modemLines(port);
    moveState(PortClosed,
              pass.lines.testFlag(QSerialPort::DataCarrierDetectSignal) ? ResettingModem : WaitingForDevice);
    pass.timer.invalidate();
}

void CComThread::waitForDevice(PassState& pass)
{
    static const int dsrCheckIntervalMs = CSettings().detailsTransportComDsrCheckInterval();
    pass.lines = modemLines(pass.port);
    if (pass.lines.testFlag(QSerialPort::DataSetReadySignal)) {
        PortReports::writeLog(
            QStringLiteral("Устройство на COM порту '%1' готово. Проверяем AT - OK.").arg(m_settings.portName),
            DebugTransportComAtCommands);
        m_reports.report(QStringLiteral("Устройство включено"));
        moveState(WaitingForDevice, CheckingDevice);
    } else if (!closeVanishedPort(pass.port)) {
        pause(dsrCheckIntervalMs);
    }
}

// When a device is unplugged, its port stays open with all modem lines down; and while it is open,
// the kernel gives the returning device another number. So the port is closed, and opened again and
// again until the device is back.
bool CComThread::closeVanishedPort(QSerialPort& port)
{
    if (!port.isOpen() || !deviceHasVanished(port, m_settings.portName))
        return false;
    port.close();
    return true;
}

void CComThread::checkDevice(PassState& pass)
{
    static const int okTimeoutMs = CSettings().detailsTransportComAtOkTimeout();
    if (closeVanishedPort(pass.port))
        return;
    if (!pass.timer.isValid())
        startCheck(pass);
    if (runsLongerThan(pass.timer, okTimeoutMs))
        checkUnanswered(pass);
    else
        readCheckAnswer(pass);
}

void CComThread::startCheck(PassState& pass)
{
    pass.port.readAll();
    pass.timer.start();
    PortReports::writeLog(QStringLiteral("Запись команды: AT"), DebugTransportComAtCommands);
    m_reports.addEvent(QStringLiteral("Запись команды 'AT'"));
    writeCommand(pass.port, checkCommand(), commandWriteWaitMs);
}

void CComThread::checkUnanswered(PassState& pass)
{
    PortReports::writeLog(QStringLiteral("Нет ответа на команду 'AT'"), DebugTransportComAtCommands);
    m_reports.report(QStringLiteral("Нет ответа на команду 'AT'"));
    pass.timer.invalidate();
    pause(noAnswerPause.lengthen() * 1000);
}

void CComThread::readCheckAnswer(PassState& pass)
{
    waitForWritten(pass.port, 100);
    waitForInput(pass.port, 100);
    switch (readModemResponse(pass.port, pass.lastAnswer)) {
    case ResponseOk:
        if (std::exchange(pass.mayAnswerLate, false))
            dropLateAnswers(pass);
        m_reports.setStatus(QStringLiteral("Свободен"));
        PortReports::writeLog(QStringLiteral("Получен ответ 'OK' на команду AT"), DebugTransportComAtCommands);
        m_reports.addEvent(QStringLiteral("Получен ответ 'OK' на команду 'AT'"));
        moveState(CheckingDevice, LineFree);
        pass.timer.invalidate();
        noAnswerPause.reset();
        break;
    case ResponseNone:
    case ResponseAtEcho: dropEndlessInput(pass.port); break;
    case ResponseUnknown:
    case ResponseError:
    case ResponseBusy:
    case ResponseRing:
    case ResponseConnect:
    case ResponseNoCarrier:
    case ResponseNoDialtone:
    case ResponseNoAnswer:
    case ResponseDialEcho:
    case ResponseAnswerEcho: {
        const QString text = QStringLiteral("Неверный ответ на команду 'AT': %1").arg(pass.lastAnswer);
        PortReports::writeLog(text, DebugTransportComAtCommands);
        m_reports.report(text);
        pass.timer.invalidate();
        pause(wrongAnswerPauseMs);
        noAnswerPause.reset();
        break;
    }
    }
}

// The "OK" that was read may be the answer to the init string. Then the answer to "AT" is still to
// come; it must not be read during the first call, because the call would fail.
void CComThread::dropLateAnswers(PassState& pass)
{
    QElapsedTimer timer;
    timer.start();
    while (!stopRequested() && state() == CheckingDevice && timer.elapsed() < lateAnswersMs) {
        if (!pass.port.canReadLine())
            waitForInput(pass.port, lateAnswersStepMs);
        if (readModemResponse(pass.port, pass.lastAnswer) == ResponseRing)
            pass.hasRung = true;
        dropEndlessInput(pass.port);
    }
}

void CComThread::serveFreeLine(PassState& pass)
{
    static const int readyCheckTimeoutMs = CSettings().detailsTransportComAtReadyCheckTimeout();
    QMutexLocker locker(&m_mutex);
    if (state() != LineFree)
        return;
    // The test for the loss of DSR at the end of the pass uses this value too.
    pass.lines = modemLines(pass.port);
    if (pass.lines.testFlag(QSerialPort::RingIndicatorSignal) || std::exchange(pass.hasRung, false) ||
        readModemResponse(pass.port, pass.lastAnswer) == ResponseRing) {
        answerCall(pass);
        return;
    }
    dropEndlessInput(pass.port);
    if (!pass.timer.isValid())
        pass.timer.start();
    if (runsLongerThan(pass.timer, readyCheckTimeoutMs)) {
        m_state = CheckingDevice;
        pass.timer.invalidate();
    }
}

// Called under m_mutex.
void CComThread::answerCall(PassState& pass)
{
    m_reports.setStatus(QStringLiteral("Входящий вызов"));
    PortReports::writeLog(QStringLiteral("Запись команды: ATA"), DebugTransportComAtCommands);
    m_reports.addEvent(QStringLiteral("Входящий вызов. Запись команды: ATA"));
    dropInput(pass.port);
    writeCommand(pass.port, answerCommand(), commandWriteWaitMs);
    m_connection.setAbonentName(QString());
    m_state = WaitingForConnect;
    pass.timer.start();
}

void CComThread::dial(PassState& pass)
{
    const QString name = abonentName();
    const QString call = ComCallTexts::calling().arg(name, m_number);
    m_reports.setStatus(call);
    PortReports::writeLog(QStringLiteral("Запись команды: ATD%1").arg(m_number), DebugTransportComAtCommands);
    m_reports.addEvent(call + QStringLiteral(". Запись команды: ATD") + m_number);
    dropInput(pass.port);
    writeCommand(pass.port, dialCommand(m_number), commandWriteWaitMs);
    moveState(CallRequested, WaitingForConnect);
    pass.timer.start();
}

void CComThread::awaitConnect(PassState& pass)
{
    static const int connectTimeoutMs = CSettings().detailsTransportComConnectTimeout();
    const bool isOutgoing = !abonentName().isEmpty();
    bool hasFailed = false;
    switch (readModemResponse(pass.port, pass.lastAnswer)) {
    case ResponseConnect: runConnection(pass); return;
    case ResponseNone:
    case ResponseUnknown: break;
    case ResponseDialEcho: hasFailed = !isOutgoing; break;
    case ResponseAnswerEcho: hasFailed = isOutgoing; break;
    case ResponseError:
    case ResponseOk:
    case ResponseBusy:
    case ResponseRing:
    case ResponseNoCarrier:
    case ResponseNoDialtone:
    case ResponseNoAnswer:
    case ResponseAtEcho: hasFailed = true; break;
    }
    if (hasFailed)
        connectFailed(pass, ComCallTexts::failed().arg(pass.lastAnswer));
    else if (runsLongerThan(pass.timer, connectTimeoutMs))
        connectFailed(pass, ComCallTexts::failed().arg(QStringLiteral("превышено время ожидания")));
}

void CComThread::connectFailed(PassState& pass, const QString& text)
{
    m_reports.report(text);
    const QString name = abonentName();
    if (!name.isEmpty())
        emit m_server->notConnected(name);
    moveState(WaitingForConnect, ResettingModem);
    pass.timer.invalidate();
}

void CComThread::resetModem(PassState& pass)
{
    static const int resetTimeoutMs = CSettings().detailsTransportComResetTimeout();
    QSerialPort& port = pass.port;
    if (!port.isOpen())
        return;
    // If the timer runs already (an error, or carrier during the check), no escape is written.
    if (!pass.timer.isValid()) {
        PortReports::writeLog(QStringLiteral("Запись команды: +++, ATH. Reseting."), DebugTransportComAtCommands);
        port.readAll();
        writeCommand(port, escapeCommand(), commandWriteWaitMs);
        waitForInput(port, 200);
        pass.timer.start();
        return;
    }
    const bool isEscaped = readModemResponse(port, pass.lastAnswer) == ResponseOk;
    if (!isEscaped && !runsLongerThan(pass.timer, resetTimeoutMs))
        return;
    writeCommand(port, resetHangUpCommand(), hangUpWriteWaitMs);
    pause(afterHangUpPauseMs);
    port.readAll();
    shutPort(port);
    moveState(ResettingModem, PortClosed);
    pass.timer.invalidate();
}

// --- the connection ---------------------------------------------------------------------

void CComThread::runConnection(PassState& pass)
{
    pass.timer.invalidate();
    const QString text = ComCallTexts::carrier().arg(pass.lastAnswer);
    PortReports::writeLog(text, DebugAlways);
    m_reports.report(text);

    switch (startSession(pass.port)) {
    case SessionStart::Running:
        // A quit() from before the loop also ends it: only the protocol's finished() counts.
        do {
            exec();
        } while (!m_connection.hasFinished());
        m_connection.waitForHandledNames(m_stopRequested);
        m_connection.reportEnd(m_connectionId);
        deleteProtocol();
        break;
    case SessionStart::Refused: m_connection.reportRefusal(); break;
    case SessionStart::CalledOff: break;
    }
    QMutexLocker locker(&m_mutex);
    m_state = ResettingModem;
}

CComThread::SessionStart CComThread::startSession(QSerialPort& port)
{
    QMutexLocker locker(&m_mutex);
    // Nobody would stop a session that is made now.
    if (stopRequested() || state() != WaitingForConnect)
        return SessionStart::CalledOff;
    CAbstractProtocol* const protocol = m_connection.makeProtocol(&port, m_settings.portName);
    if (!protocol)
        return SessionStart::Refused;
    // A direct connection: the server's thread may be waiting in its own stop(). Made after that of
    // PortConnection, whose note must be there when the event loop ends.
    connect(protocol, &CAbstractProtocol::finished, this, &QThread::quit, Qt::DirectConnection);
    connect(protocol, &CAbstractProtocol::remoteAbonentNameChanged, this, &CComThread::remoteAbonentNameChanged);
    m_connection.begin(protocol);
    return SessionStart::Running;
}

void CComThread::deleteProtocol()
{
    QMutexLocker locker(&m_mutex);
    // Being cancelled in a destructor would abort the host.
    setTerminationEnabled(false);
    m_connection.deleteProtocol();
    setTerminationEnabled(true);
}

void CComThread::remoteAbonentNameChanged(QString name)
{
    _CFunctionDebug trace(Q_FUNC_INFO);
    m_connection.setAbonentName(name);
    emit m_server->connected(name, m_connectionId);
    m_reports.report(ComCallTexts::connected().arg(name));
    m_connection.nameHandled();
}

// --- in any state -----------------------------------------------------------------------

void CComThread::reopenClosedPort(PassState& pass)
{
    if (pass.port.isOpen())
        return;
    m_reports.setStatus(QStringLiteral("Открытие COM порта"));
    QMutexLocker locker(&m_mutex);
    m_state = PortClosed;
    m_errors.portClosed();
}

void CComThread::resetOnCarrier(PassState& pass)
{
    if (state() != CheckingDevice)
        return;
    pass.lines = modemLines(pass.port);
    // The modem is still in a call.
    if (pass.lines.testFlag(QSerialPort::DataCarrierDetectSignal))
        moveState(CheckingDevice, ResettingModem);
}

void CComThread::leaveFreeOnDsrLoss(PassState& pass)
{
    if (state() != LineFree || pass.lines.testFlag(QSerialPort::DataSetReadySignal))
        return;
    QMutexLocker locker(&m_mutex);
    // A call may have been taken meanwhile.
    if (state() != LineFree)
        return;
    PortReports::writeLog(QStringLiteral("Устройство на COM порту '%1' выключено").arg(m_settings.portName),
                          DebugTransportComAtCommands);
    m_reports.report(QStringLiteral("COM порт открыт"));
    m_state = WaitingForDevice;
}

// --- errors of the port -----------------------------------------------------------------

// Runs in the worker's thread, within the port's own call.
void CComThread::portErrorOccurred(const QSerialPort& port, QSerialPort::SerialPortError code)
{
    const int stateNow = state();
    if (m_errors.note(code, port, stateNow, stateNow != PortClosed))
        QMetaObject::invokeMethod(
            this, [this, code] { comPortError(code); }, Qt::QueuedConnection);
}

// The error as it was noted when it was raised; if it came another way, what can still be found
// out.
PortError CComThread::noted(QSerialPort::SerialPortError code)
{
    if (const std::optional<PortError> error = m_errors.take(code))
        return *error;
    const auto* const port = qobject_cast<QSerialPort*>(sender());
    return {code, port ? port->errorString() : QString(), state(), m_errors.opening()};
}

void CComThread::comPortError(QSerialPort::SerialPortError error)
{
    _CFunctionDebug trace(Q_FUNC_INFO);
    if (PortErrors::isIgnored(error))
        return;
    const PortError raised = noted(error);
    const QString text =
        QStringLiteral("COM port error: %1").arg(static_cast<int>(error)) + QStringLiteral(". %1").arg(raised.text);
    PortReports::writeLog(text, DebugTransportComPortError);
    m_reports.addError(text);

    QMutexLocker locker(&m_mutex);
    // No endless resets: neither because of a parameter that the port refuses while it is being
    // opened, nor because of an error from before the port was opened again.
    if (raised.state == PortClosed || !m_errors.isOfThisOpening(raised))
        return;
    m_connection.stop();
    if (state() != PortClosed)
        m_state = ResettingModem;
}

// --- the end of run() -------------------------------------------------------------------

void CComThread::hangUpOnExit(PassState& pass)
{
    // run() leaves its loop only when the flag is set, so this returns here: a stop does not wait
    // for the modem. Kept in case the loop ends for another reason.
    if (stopRequested())
        return;
    QSerialPort& port = pass.port;
    if (!modemLines(port).testFlag(QSerialPort::DataCarrierDetectSignal))
        return;
    PortReports::writeLog(QStringLiteral("Запись команды: +++, ATH"), DebugTransportComAtCommands);
    writeCommand(port, escapeCommand(), hangUpWriteWaitMs);
    pass.timer.start();
    do {
        waitForInput(port, 100);
    } while (readModemResponse(port, pass.lastAnswer) != ResponseOk && pass.timer.elapsed() < 999);
    writeCommand(port, exitHangUpCommand(), hangUpWriteWaitMs);
    pause(100);
    port.readAll();
}

// --- small tools ------------------------------------------------------------------------

// A change of state without m_mutex. Returns false and changes nothing if a call was taken or a
// reset forced meanwhile.
bool CComThread::moveState(State from, State to)
{
    int expected = from;
    return m_state.compare_exchange_strong(expected, to);
}

void CComThread::pause(int pauseMs) const
{
    for (int step = 0; step < pauseMs / pauseStepMs; ++step) {
        if (stopRequested())
            return;
        msleep(pauseStepMs);
    }
}
