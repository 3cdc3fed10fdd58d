#include "sim/pty/ptyendpoint.h"

#include "sim/pty/signaltable.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

// Not <termios.h>: only the kernel's own record holds the speed as a number.
#include <QFile>

#include <asm/termbits.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace sim {

namespace {

// A program killed between claiming room and writing leaves a claim behind; a claim that
// stays this long with nothing to read is such a one.
constexpr std::int64_t lostReservationMs = 200;

struct SignalPair
{
    int signal;
    unsigned tiocm;
};

constexpr SignalPair modemPairs[] = {
    {SignalDsr, TIOCM_DSR}, {SignalDcd, TIOCM_CAR}, {SignalRi, TIOCM_RNG}, {SignalCts, TIOCM_CTS}};
constexpr SignalPair programPairs[] = {{SignalDtr, TIOCM_DTR}, {SignalRts, TIOCM_RTS}};

std::int64_t nowMs()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

bool makeRaw(int fd)
{
    termios2 settings;
    if (ioctl(fd, TCGETS2, &settings) != 0)
        return false;
    settings.c_iflag = 0;
    settings.c_oflag = 0;
    settings.c_lflag = 0;
    settings.c_cflag = (settings.c_cflag & ~static_cast<tcflag_t>(CSIZE | PARENB)) | CS8 | CREAD | CLOCAL;
    settings.c_cc[VMIN] = 1;
    settings.c_cc[VTIME] = 0;
    return ioctl(fd, TCSETS2, &settings) == 0;
}

QString whyNoTable(int error)
{
    switch (error) {
    case ELOOP: return QStringLiteral("it is a link; name the file itself");
    case EPERM: return QStringLiteral("it belongs to somebody else; name another file");
    case EINVAL: return QStringLiteral("it is no table of this version; remove it or name another file");
    default: return QString::fromLocal8Bit(strerror(error));
    }
}

// Whether the name is free, or is a link to a port that this user has made. Anything else is
// not ours to remove.
bool mayReplace(const QByteArray& name)
{
    constexpr char ports[] = "/dev/pts/";
    struct stat status
    {
    };
    if (::lstat(name.constData(), &status) != 0)
        return true; // missing; what else is wrong shows when the link is made
    char target[sizeof(ports)] = {};
    return S_ISLNK(status.st_mode) && status.st_uid == geteuid() &&
           ::readlink(name.constData(), target, sizeof(ports) - 1) > 0 && strcmp(target, ports) == 0;
}

} // namespace

PtyEndpoint::PtyEndpoint(const QString& linkPath) : m_linkPath(linkPath)
{
    plugIn();
}

PtyEndpoint::~PtyEndpoint()
{
    unplug();
}

QString PtyEndpoint::portPath() const
{
    return m_linkPath.isEmpty() ? m_slavePath : m_linkPath;
}

void PtyEndpoint::setModemSignals(int raised)
{
    if (!m_row)
        return;
    unsigned bits = 0;
    for (const SignalPair& pair : modemPairs)
        bits |= raised & pair.signal ? pair.tiocm : 0;
    m_row->modemSignals.store(bits);
}

int PtyEndpoint::modemSignals() const
{
    int raised = 0;
    for (const SignalPair& pair : modemPairs)
        raised |= m_row && (m_row->modemSignals.load() & pair.tiocm) ? pair.signal : 0;
    return raised;
}

int PtyEndpoint::programSignals() const
{
    int raised = 0;
    for (const SignalPair& pair : programPairs)
        raised |= m_row && (m_row->programSignals.load() & pair.tiocm) ? pair.signal : 0;
    return raised;
}

bool PtyEndpoint::programSetsSignals() const
{
    return m_row && m_row->programSets.load() != 0;
}

unsigned PtyEndpoint::dtrDrops() const
{
    return m_row ? m_row->dtrDrops.load() : 0;
}

int PtyEndpoint::baudRate() const
{
    termios2 settings;
    if (m_slave < 0 || ioctl(m_slave, TCGETS2, &settings) != 0)
        return 0;
    return static_cast<int>(settings.c_ospeed);
}

QByteArray PtyEndpoint::read(qint64 maxBytes)
{
    constexpr qint64 chunk = 4096;
    QByteArray data;
    if (!isOpen())
        return data;
    dropDiscarded();
    while (maxBytes < 0 || data.size() < maxBytes) {
        const int before = data.size();
        const qint64 wanted = maxBytes < 0 ? chunk : std::min(chunk, maxBytes - before);
        data.resize(before + static_cast<int>(wanted));
        const qint64 got = readMaster(data.data() + before, wanted);
        data.resize(before + static_cast<int>(std::max<qint64>(got, 0)));
        if (got <= 0)
            break;
    }
    if (data.isEmpty() && maxBytes != 0)
        forgetLostReservation();
    else
        m_idleSinceMs = -1;
    return data;
}

qint64 PtyEndpoint::write(const QByteArray& data)
{
    if (!isOpen())
        return -1;
    qint64 sent = 0;
    while (sent < data.size()) {
        const ssize_t done = ::write(m_master, data.constData() + sent, static_cast<size_t>(data.size() - sent));
        if (done < 0 && errno == EINTR)
            continue;
        if (done <= 0)
            break;
        sent += done;
    }
    return sent;
}

void PtyEndpoint::setDepth(int bytes)
{
    m_depth = bytes;
    if (m_row)
        m_row->depth.store(bytes);
}

void PtyEndpoint::setDrainRate(int bytesPerS)
{
    if (m_row)
        m_row->drainBytesPerS.store(bytesPerS);
}

qint64 PtyEndpoint::bytesFromProgram() const
{
    return m_row ? static_cast<qint64>(m_row->outstanding()) : 0;
}

bool PtyEndpoint::hasInput() const
{
    pollfd entry{m_master, POLLIN, 0};
    return isOpen() && poll(&entry, 1, 0) > 0 && (entry.revents & POLLIN);
}

void PtyEndpoint::unplug()
{
    if (!isOpen())
        return;
    // The link goes first, so that nobody finds the dying port; not when another took it over.
    if (!m_linkPath.isEmpty() && QFile::symLinkTarget(m_linkPath) == m_slavePath)
        QFile::remove(m_linkPath);
    closePty();
}

bool PtyEndpoint::plugIn()
{
    if (isOpen())
        return true;
    m_errorString.clear();
    return openPty() && claimRow() && makeLink();
}

bool PtyEndpoint::fail(const QString& what)
{
    return failFor(what, QString::fromLocal8Bit(strerror(errno)));
}

bool PtyEndpoint::failFor(const QString& what, const QString& why)
{
    m_errorString = QStringLiteral("%1: %2").arg(what, why);
    closePty();
    return false;
}

bool PtyEndpoint::openPty()
{
    m_master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    if (m_master < 0)
        return fail(QStringLiteral("cannot open a pseudo-terminal"));
    char path[128];
    if (grantpt(m_master) != 0 || unlockpt(m_master) != 0 || ptsname_r(m_master, path, sizeof(path)) != 0)
        return fail(QStringLiteral("cannot unlock the pseudo-terminal"));
    m_slavePath = QString::fromLocal8Bit(path);
    m_slave = ::open(path, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (m_slave < 0 || !makeRaw(m_slave))
        return fail(QStringLiteral("cannot set up %1").arg(m_slavePath));
    return true;
}

bool PtyEndpoint::claimRow()
{
    int number = -1;
    if (ioctl(m_master, TIOCGPTN, &number) != 0)
        return fail(QStringLiteral("cannot learn the number of %1").arg(m_slavePath));
    SignalTable* table = makeSignalTable();
    if (!table)
        return failFor(QStringLiteral("cannot use the table of modem lines %1")
                           .arg(QString::fromLocal8Bit(qgetenv(signalTableVariable))),
                       whyNoTable(errno));
    SignalRow* row = signalRow(table, number);
    if (!row) {
        errno = ERANGE;
        return fail(QStringLiteral("no room in the table of modem lines for %1").arg(m_slavePath));
    }
    row->modemSignals.store(0);
    row->programSignals.store(0);
    row->programSets.store(0);
    row->dtrDrops.store(0);
    row->depth.store(m_depth);
    row->drainBytesPerS.store(0);
    row->written.store(0);
    row->taken.store(0);
    row->discardedUpTo.store(0);
    row->owner.store(getpid());
    m_row = row;
    m_idleSinceMs = -1;
    return true;
}

bool PtyEndpoint::makeLink()
{
    if (m_linkPath.isEmpty())
        return true;
    const QByteArray link = QFile::encodeName(m_linkPath);
    if (!mayReplace(link)) {
        m_errorString =
            QStringLiteral("%1 is no link to a port and is left alone; remove it or make the links elsewhere")
                .arg(m_linkPath);
        closePty();
        return false;
    }
    // Under a name of its own first, so that the link is never missing nor half made.
    const QByteArray fresh = link + '.' + QByteArray::number(getpid());
    if (mayReplace(fresh))
        ::unlink(fresh.constData());
    if (::symlink(QFile::encodeName(m_slavePath).constData(), fresh.constData()) != 0)
        return fail(QStringLiteral("cannot make the link %1").arg(m_linkPath));
    if (::rename(fresh.constData(), link.constData()) != 0) {
        const int error = errno;
        ::unlink(fresh.constData());
        errno = error;
        return fail(QStringLiteral("cannot make the link %1").arg(m_linkPath));
    }
    return true;
}

void PtyEndpoint::closePty()
{
    if (m_row) {
        m_row->modemSignals.store(0);
        m_row->owner.store(0);
        m_row = nullptr;
    }
    if (m_slave >= 0)
        ::close(m_slave);
    if (m_master >= 0)
        ::close(m_master);
    m_slave = -1;
    m_master = -1;
}

qint64 PtyEndpoint::readMaster(char* data, qint64 maxBytes)
{
    ssize_t got = 0;
    do {
        got = ::read(m_master, data, static_cast<size_t>(maxBytes));
    } while (got < 0 && errno == EINTR);
    if (got > 0)
        countTaken(got);
    return got;
}

// Never beyond what was written: bytes from a program without the ptylines object are not
// counted there.
void PtyEndpoint::countTaken(qint64 bytes)
{
    const std::uint64_t taken = m_row->taken.load() + static_cast<std::uint64_t>(bytes);
    m_row->taken.store(std::min(taken, m_row->written.load()));
}

void PtyEndpoint::dropDiscarded()
{
    char sink[4096];
    for (;;) {
        const std::uint64_t upTo = m_row->discardedUpTo.load();
        const std::uint64_t taken = m_row->taken.load();
        if (taken >= upTo ||
            readMaster(sink, static_cast<qint64>(std::min<std::uint64_t>(sizeof(sink), upTo - taken))) <= 0)
            return;
    }
}

void PtyEndpoint::forgetLostReservation()
{
    const std::uint64_t written = m_row->written.load();
    if (written == m_row->taken.load()) {
        m_idleSinceMs = -1;
    } else if (m_idleSinceMs < 0 || m_idleWritten != written) {
        m_idleWritten = written;
        m_idleSinceMs = nowMs();
    } else if (nowMs() - m_idleSinceMs > lostReservationMs) {
        m_row->taken.store(written);
        m_idleSinceMs = -1;
    }
}

} // namespace sim
