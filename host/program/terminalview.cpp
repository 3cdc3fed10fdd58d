#include "host/program/terminalview.h"

#include "host/installation/names.h"

#include <QTime>

#include <sys/ioctl.h>
#include <unistd.h>

namespace host {

namespace {

constexpr int drawMs = 250;
constexpr qint64 rateWindowMs = 2000;
constexpr int journalLines = 6;
constexpr int barColumns = 30;
constexpr int defaultWidth = 100;
constexpr int minWidth = 40;

int terminalWidth(std::FILE* out)
{
    winsize size{};
    if (ioctl(fileno(out), TIOCGWINSZ, &size) != 0 || size.ws_col == 0)
        return defaultWidth;
    return qMax<int>(minWidth, size.ws_col);
}

QString timeText()
{
    return QTime::currentTime().toString(QStringLiteral("HH:mm:ss"));
}

QString fileLine(const FileProgress& row, qint64 nowMs)
{
    QString state;
    switch (row.state) {
    case FileProgress::State::Moving: {
        const qint64 elapsedMs = qMax<qint64>(1, nowMs - row.beganMs);
        state = QStringLiteral("%1/s").arg(sizeText((row.file.doneBytes - row.resumedFrom) * 1000 / elapsedMs));
        break;
    }
    case FileProgress::State::Waiting: state = QStringLiteral("sent, waiting for their word"); break;
    case FileProgress::State::Whole:
        state =
            row.text.isEmpty() || !row.file.isOutgoing ? QStringLiteral("done, hash verified") : displayName(row.text);
        break;
    case FileProgress::State::Failed: state = displayName(row.text); break;
    }
    return QStringLiteral("  %1 %2 %3 of %4  %5  %6")
        .arg(row.file.isOutgoing ? QStringLiteral("->") : QStringLiteral("<-"),
             progressBar(row.file.doneBytes, row.file.sizeBytes, barColumns), sizeText(row.file.doneBytes),
             sizeText(row.file.sizeBytes), displayName(row.file.fileName), state);
}

} // namespace

QString sizeText(qint64 bytes)
{
    const char* const units[] = {"kB", "MB", "GB", "TB"};
    if (bytes < 1000)
        return QStringLiteral("%1 B").arg(bytes);
    double value = static_cast<double>(bytes) / 1000.0;
    int unit = 0;
    while (value >= 999.95 && unit < 3) {
        value /= 1000.0;
        ++unit;
    }
    return QString::asprintf("%.1f %s", value, units[unit]);
}

QString progressBar(qint64 done, qint64 size, int width)
{
    const double share =
        size > 0 ? qBound(0.0, static_cast<double>(done) / static_cast<double>(size), 1.0) : (done >= size ? 1.0 : 0.0);
    const int filled = static_cast<int>(share * width);
    return QLatin1Char('[') + QString(filled, QLatin1Char('#')) + QString(width - filled, QLatin1Char('-')) +
           QString::asprintf("] %3d%%", static_cast<int>(share * 100));
}

QStringList renderPicture(const Picture& picture, int width)
{
    QStringList lines{picture.title};
    for (const Picture::Port& port : picture.ports) {
        lines.append(QStringLiteral("%1 %2  in %3 (%4/s)  out %5 (%6/s)")
                         .arg(displayName(port.row.name).leftJustified(14), displayName(port.row.state),
                              sizeText(port.row.receivedBytes), sizeText(port.receivedPerSecond),
                              sizeText(port.row.sentBytes), sizeText(port.sentPerSecond)));
        for (const FileProgress& row : picture.files) {
            if (row.channelName == port.row.name)
                lines.append(fileLine(row, picture.nowMs));
        }
    }
    lines.append(picture.journal);
    for (QString& line : lines)
        line.truncate(width);
    return lines;
}

TerminalView::TerminalView(TransportHost* host, ViewKind kind, std::FILE* out) : m_host(host), m_kind(kind), m_out(out)
{
    connect(host, &TransportHost::journalRecord, this, &TerminalView::onJournal);
    connect(host, &TransportHost::stateChanged, this, &TerminalView::onState);
    connect(host, &TransportHost::fileChanged, this, &TerminalView::onFile);
    connect(&m_timer, &QTimer::timeout, this, &TerminalView::draw);
    if (kind == ViewKind::Live)
        m_timer.start(drawMs);
}

void TerminalView::print(const QString& line)
{
    std::fprintf(m_out, "%s\n", line.toUtf8().constData());
    std::fflush(m_out);
}

void TerminalView::onJournal(const JournalRecord& record)
{
    if (m_kind == ViewKind::Plain)
        print(record.line());
    m_journal.append(record.time.toString(QStringLiteral("HH:mm:ss ")) +
                     (record.isError ? QStringLiteral("! ") : QString()) + displayName(record.source) +
                     QStringLiteral(": ") + displayName(record.text));
    while (m_journal.size() > journalLines)
        m_journal.removeFirst();
}

void TerminalView::showTrouble(const QString& text)
{
    JournalRecord record;
    record.time = QDateTime::currentDateTime();
    record.isError = true;
    record.source = QStringLiteral("library");
    record.text = text;
    onJournal(record);
}

void TerminalView::onState(const ChannelRow& row)
{
    if (m_kind == ViewKind::Plain)
        print(QStringLiteral("%1 [%2] %3").arg(timeText(), displayName(row.name), displayName(row.state)));
}

// A line for each tenth of a file.
void TerminalView::onFile(const FileProgress& row)
{
    if (m_kind != ViewKind::Plain)
        return;
    const QString key = row.peer + (row.file.isOutgoing ? QLatin1Char('>') : QLatin1Char('<')) + row.file.fileName;
    if (row.state == FileProgress::State::Whole || row.state == FileProgress::State::Failed) {
        m_toldTenths.remove(key); // the journal has a line about it
        return;
    }
    const int tenth = row.file.sizeBytes > 0 ? static_cast<int>(row.file.doneBytes * 10 / row.file.sizeBytes) : 10;
    if (m_toldTenths.value(key, -1) == tenth)
        return;
    m_toldTenths[key] = tenth;
    print(QStringLiteral("%1 [%2]").arg(timeText(), displayName(row.channelName)) + fileLine(row, m_host->nowMs()));
}

Picture TerminalView::picture()
{
    Picture picture;
    picture.nowMs = m_host->nowMs();
    picture.title = QStringLiteral("transport-host  %1  %2  queued %3, delivered %4, received %5")
                        .arg(displayName(m_host->identity().name), timeText(), QString::number(m_host->queue().size()),
                             QString::number(m_host->deliveredCount()), QString::number(m_host->receivedCount()));
    for (const ChannelRow& row : m_host->channels()) {
        Traffic& traffic = m_traffic[row.id];
        const qint64 elapsedMs = picture.nowMs - traffic.atMs;
        if (elapsedMs >= rateWindowMs) {
            traffic.receivedPerSecond = (row.receivedBytes - traffic.received) * 1000 / elapsedMs;
            traffic.sentPerSecond = (row.sentBytes - traffic.sent) * 1000 / elapsedMs;
            traffic.received = row.receivedBytes;
            traffic.sent = row.sentBytes;
            traffic.atMs = picture.nowMs;
        }
        picture.ports.append({row, traffic.receivedPerSecond, traffic.sentPerSecond});
    }
    picture.files = m_host->files();
    picture.journal = m_journal;
    return picture;
}

void TerminalView::draw()
{
    const QStringList lines = renderPicture(picture(), terminalWidth(m_out) - 1);
    QString output;
    if (m_drawnLines > 0)
        output += QStringLiteral("\x1B[%1A").arg(m_drawnLines);
    for (const QString& line : lines)
        output += line + QStringLiteral("\x1B[K\n");
    output += QStringLiteral("\x1B[J");
    m_drawnLines = lines.size();
    std::fputs(output.toUtf8().constData(), m_out);
    std::fflush(m_out);
}

void TerminalView::finish()
{
    if (m_kind == ViewKind::Live) {
        m_timer.stop();
        draw();
    }
}

} // namespace host
