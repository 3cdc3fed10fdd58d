#include "sim/modem/modem.h"

#include "sim/line/moments.h"

namespace sim {

namespace {

int takeNumber(const QByteArray& text, int& at)
{
    int value = 0;
    while (at < text.size() && text.at(at) >= '0' && text.at(at) <= '9') {
        value = qMin(value * 10 + (text.at(at) - '0'), 100000);
        ++at;
    }
    return value;
}

} // namespace

Modem::Modem(ModemHost* host, const QString& number, RingStyle ringStyle)
    : m_host(host), m_number(number), m_ringStyle(ringStyle)
{
}

void Modem::byteFromProgram(char byte, qint64 nowNs)
{
    advance(nowNs);
    switch (m_state) {
    case ModemState::Data: dataByte(byte, nowNs); return;
    case ModemState::Dialling:
    case ModemState::Answering:
        // Any key gives the call up; a line feed belongs to the command before it.
        if (byte == m_profile.byteAt(LineFeed))
            return;
        m_host->hangUp();
        goOnHook();
        result(ResultCode::NoCarrier);
        return;
    case ModemState::OnHook:
    case ModemState::OffHook:
    case ModemState::OnlineCommand: commandByte(byte); return;
    }
}

void Modem::dtrDropped(qint64 nowNs)
{
    advance(nowNs);
    switch (m_profile.dtrAction) {
    case 0: return;
    case 1:
        if (m_state == ModemState::Data) {
            setState(ModemState::OnlineCommand);
            result(ResultCode::Ok);
        }
        return;
    case 2:
    case 3: break;
    }
    const bool hadCall = m_state != ModemState::OnHook && m_state != ModemState::OffHook;
    if (m_state != ModemState::OnHook) {
        m_host->hangUp();
        goOnHook();
    }
    if (m_profile.dtrAction == 3)
        resetTo(m_storedProfile);
    if (hadCall)
        result(ResultCode::NoCarrier);
}

void Modem::ring(qint64 nowNs)
{
    advance(nowNs);
    if (m_state != ModemState::OnHook || (!m_dtr && m_profile.dtrAction != 0))
        return;
    quint8& count = m_profile.at(RingCount);
    count = static_cast<quint8>(qMin(count + 1, 255));
    switch (m_ringStyle) {
    case RingStyle::Text: result(ResultCode::Ring); break;
    case RingStyle::Pin: m_host->setRingIndicator(true); break;
    }
    const int wanted = m_profile.at(RingsToAnswer);
    if (wanted > 0 && count >= wanted) {
        m_host->trace(QStringLiteral("answers by itself after %1 rings").arg(count));
        answer();
    }
}

void Modem::ringPauses()
{
    if (m_ringStyle == RingStyle::Pin)
        m_host->setRingIndicator(false);
}

void Modem::ringingStopped()
{
    ringPauses();
    m_profile.at(RingCount) = 0;
}

void Modem::connected(int bitsPerSecond, qint64 nowNs)
{
    m_speed = bitsPerSecond;
    m_escape.start(nowNs);
    setState(ModemState::Data);
    resultConnect();
}

void Modem::callFailed(CallFailure failure)
{
    const DialString dialled = m_dial;
    goOnHook();
    const bool hearsBusy = m_profile.resultLevel >= 3;
    const bool hearsTone = m_profile.resultLevel == 2 || m_profile.resultLevel == 4 || dialled.waitsForTone;
    switch (failure) {
    case CallFailure::Busy: result(hearsBusy ? ResultCode::Busy : ResultCode::NoCarrier); return;
    case CallFailure::NoDialTone: result(hearsTone ? ResultCode::NoDialTone : ResultCode::NoCarrier); return;
    case CallFailure::NoAnswer:
        result(hearsBusy || dialled.waitsForQuiet ? ResultCode::NoAnswer : ResultCode::NoCarrier);
        return;
    case CallFailure::NoCarrier: result(ResultCode::NoCarrier); return;
    }
}

void Modem::carrierLost()
{
    if (!isConnected())
        return;
    goOnHook();
    result(ResultCode::NoCarrier);
}

void Modem::advance(qint64 nowNs)
{
    const qint64 due = nextEventNs();
    if (due < 0 || nowNs < due)
        return;
    m_escape.reset();
    setState(ModemState::OnlineCommand);
    m_host->trace(QStringLiteral("escape to command mode"));
    result(ResultCode::Ok);
}

qint64 Modem::nextEventNs() const
{
    return m_state == ModemState::Data ? m_escape.dueNs(m_profile.guardNs()) : -1;
}

void Modem::powerOn()
{
    m_reader.reset();
    ringingStopped();
    goOnHook();
    resetTo(m_storedProfile);
}

// The escape bytes go to the line like any others, as those of real modems do.
void Modem::dataByte(char byte, qint64 nowNs)
{
    m_host->toLine(byte);
    const qint64 guardNs = m_profile.guardNs();
    m_escape.add(byte, m_profile.at(EscapeByte), guardNs, nowNs);
    if (guardNs == 0)
        advance(nowNs);
}

void Modem::commandByte(char byte)
{
    if (m_profile.echo)
        m_host->toProgram(QByteArray(1, byte));
    switch (m_reader.add(byte, m_profile.at(CarriageReturn), m_profile.at(Backspace))) {
    case CommandReader::Result::Unfinished: return;
    case CommandReader::Result::Command: execute(m_reader.command()); return;
    case CommandReader::Result::TooLong: result(ResultCode::Error); return;
    }
}

void Modem::execute(const QByteArray& text)
{
    m_host->trace(QStringLiteral("command AT%1").arg(QString::fromLatin1(text)));
    int at = 0;
    while (at < text.size()) {
        switch (executeOne(text, at)) {
        case Outcome::Next: break;
        case Outcome::Failed: result(ResultCode::Error); return;
        case Outcome::Finished: return;
        }
    }
    result(ResultCode::Ok);
}

Modem::Outcome Modem::executeOne(const QByteArray& text, int& at)
{
    const char command = text.at(at++);
    switch (command) {
    case 'A': return answer();
    case 'D': return dial(text.mid(at));
    case 'E': return setChoice(m_profile.echo, takeNumber(text, at));
    case 'H': return hook(takeNumber(text, at));
    case 'I': return information(takeNumber(text, at));
    case 'O': takeNumber(text, at); return returnOnline();
    case 'Q': return setChoice(m_profile.quiet, takeNumber(text, at));
    case 'V': return setChoice(m_profile.verbose, takeNumber(text, at));
    case 'X': return setLevel(m_profile.resultLevel, takeNumber(text, at), 4);
    case 'Z':
        takeNumber(text, at);
        hook(0);
        resetTo(m_storedProfile);
        result(ResultCode::Ok);
        return Outcome::Finished;
    case 'S': m_selectedRegister = takeNumber(text, at); return executeRegister(text, at);
    case '=':
    case '?': --at; return executeRegister(text, at);
    case '&': return executeAmpersand(text, at);
    case 'B': // modulation
    case 'C': // transmitter
    case 'F': // echo of data
    case 'L': // loudness
    case 'M': // loudspeaker
    case 'N': // negotiation
    case 'P': // pulse dialling
    case 'T': // tone dialling
    case 'W': // form of CONNECT
    case 'Y': // break
        takeNumber(text, at);
        return Outcome::Next;
    case '\\': // error correction
    case '%': // compression
        if (at >= text.size())
            return Outcome::Failed;
        ++at;
        takeNumber(text, at);
        return Outcome::Next;
    }
    return Outcome::Failed;
}

Modem::Outcome Modem::executeAmpersand(const QByteArray& text, int& at)
{
    if (at >= text.size())
        return Outcome::Failed;
    const char command = text.at(at++);
    if (command == 'Z')
        return storeNumber(text, at);
    const int value = takeNumber(text, at);
    switch (command) {
    case 'C': {
        const Outcome outcome = setChoice(m_profile.carrierFollows, value);
        showCarrier();
        return outcome;
    }
    case 'D': return setLevel(m_profile.dtrAction, value, 3);
    case 'F': resetTo(Profile()); return Outcome::Next;
    case 'V': say(m_profile.toText()); return Outcome::Next;
    case 'W': m_storedProfile = m_profile; return Outcome::Next;
    case 'G': // guard tone
    case 'J': // jack
    case 'K': // flow control
    case 'L': // leased line
    case 'M': // synchronous mode
    case 'P': // pulse ratio
    case 'Q': // mode of error correction
    case 'R': // RTS and CTS
    case 'S': // DSR: stands while the modem has power
    case 'T': // self-test
    case 'X': // clock
    case 'Y': // profile at power-on
        return Outcome::Next;
    }
    return Outcome::Failed;
}

Modem::Outcome Modem::executeRegister(const QByteArray& text, int& at)
{
    if (m_selectedRegister >= Profile::registerCount)
        return Outcome::Failed;
    quint8& value = m_profile.at(m_selectedRegister);
    const char action = at < text.size() ? text.at(at) : '\0';
    if (action == '?') {
        ++at;
        say(QByteArray::number(value).rightJustified(3, '0'));
    } else if (action == '=') {
        ++at;
        const int wanted = takeNumber(text, at);
        if (wanted > 255 || m_selectedRegister == RingCount)
            return Outcome::Failed;
        value = static_cast<quint8>(wanted);
    }
    return Outcome::Next;
}

Modem::Outcome Modem::setChoice(bool& setting, int value)
{
    if (value > 1)
        return Outcome::Failed;
    setting = value == 1;
    return Outcome::Next;
}

Modem::Outcome Modem::setLevel(int& setting, int value, int most)
{
    if (value > most)
        return Outcome::Failed;
    setting = value;
    return Outcome::Next;
}

Modem::Outcome Modem::answer()
{
    if (isConnected())
        return Outcome::Failed;
    m_dial = DialString();
    setState(ModemState::Answering);
    m_host->answer();
    return Outcome::Finished;
}

Modem::Outcome Modem::dial(const QByteArray& text)
{
    m_dial = parseDialString(text);
    if (isConnected() || !m_dial.valid)
        return Outcome::Failed;
    if (m_dial.last)
        m_dial.number.prepend(m_lastNumber);
    if (m_dial.stored >= 0)
        m_dial.number.prepend(m_storedNumbers[static_cast<std::size_t>(m_dial.stored)]);
    // L and a semicolon could double the number with each command.
    if (m_dialledSoFar.size() + m_dial.number.size() > maxCommandLength) {
        m_dialledSoFar.clear();
        return Outcome::Failed;
    }
    m_dialledSoFar += m_dial.number;
    if (m_dial.staysInCommand) {
        setState(ModemState::OffHook);
        result(ResultCode::Ok);
        return Outcome::Finished;
    }
    m_lastNumber = m_dialledSoFar;
    m_dialledSoFar.clear();
    setState(ModemState::Dialling);
    m_host->dial(m_lastNumber, m_dial.pauses * m_profile.at(CommaPauseSeconds) * nsPerSecond);
    return Outcome::Finished;
}

Modem::Outcome Modem::hook(int value)
{
    if (value > 1)
        return Outcome::Failed;
    if (value == 0) {
        if (m_state != ModemState::OnHook)
            m_host->hangUp();
        goOnHook();
    } else if (m_state == ModemState::OnHook) {
        setState(ModemState::OffHook);
    }
    return Outcome::Next;
}

Modem::Outcome Modem::returnOnline()
{
    if (m_state != ModemState::OnlineCommand) {
        result(ResultCode::NoCarrier);
        return Outcome::Finished;
    }
    m_escape.reset();
    setState(ModemState::Data);
    resultConnect();
    return Outcome::Finished;
}

Modem::Outcome Modem::information(int value)
{
    switch (value) {
    case 0: say("PHONE-EXCHANGE MODEM"); return Outcome::Next;
    case 1: say(m_number.toLatin1()); return Outcome::Next;
    case 2: // self-test passed
        return Outcome::Next;
    case 3: say("1.0"); return Outcome::Next;
    case 4: say(m_profile.toText()); return Outcome::Next;
    }
    return Outcome::Failed;
}

Modem::Outcome Modem::storeNumber(const QByteArray& text, int& at)
{
    const int place = takeNumber(text, at);
    if (place >= static_cast<int>(m_storedNumbers.size()) || text.mid(at, 1) != "=")
        return Outcome::Failed;
    m_storedNumbers[static_cast<std::size_t>(place)] = normalizedNumber(QString::fromLatin1(text.mid(at + 1)));
    at = text.size();
    return Outcome::Next;
}

void Modem::resetTo(const Profile& profile)
{
    const quint8 rings = m_profile.at(RingCount);
    m_profile = profile;
    m_profile.at(RingCount) = rings;
    showCarrier();
}

void Modem::goOnHook()
{
    m_dialledSoFar.clear();
    m_dial = DialString();
    m_escape.reset();
    setState(ModemState::OnHook);
}

void Modem::setState(ModemState state)
{
    m_state = state;
    showCarrier();
}

void Modem::showCarrier()
{
    m_host->setCarrierDetect(isConnected() || !m_profile.carrierFollows);
}

// A text of information.
void Modem::say(const QByteArray& text)
{
    m_host->toProgram((m_profile.verbose ? textEnd() : QByteArray()) + text + textEnd());
}

void Modem::result(ResultCode code)
{
    sendResult(resultText(code), resultNumber(code));
}

void Modem::resultConnect()
{
    if (m_profile.resultLevel == 0)
        result(ResultCode::Connect);
    else
        sendResult(resultText(ResultCode::Connect) + ' ' + QByteArray::number(m_speed), connectNumber(m_speed));
}

void Modem::sendResult(const QByteArray& text, int number)
{
    m_host->trace(QStringLiteral("answer %1").arg(QString::fromLatin1(text)));
    if (m_profile.quiet)
        return;
    if (m_profile.verbose)
        m_host->toProgram(textEnd() + text + textEnd());
    else
        m_host->toProgram(QByteArray::number(number) + m_profile.byteAt(CarriageReturn));
}

QByteArray Modem::textEnd() const
{
    QByteArray end;
    end += m_profile.byteAt(CarriageReturn);
    end += m_profile.byteAt(LineFeed);
    return end;
}

} // namespace sim
