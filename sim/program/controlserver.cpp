#include "sim/program/controlserver.h"

#include <QFile>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace sim {

namespace {

constexpr int longestCommandBytes = 4096;

QString reason()
{
    return QString::fromLocal8Bit(strerror(errno));
}

// Whether nobody listens on the socket any more. When it is full or fails in another way, its
// process still runs.
bool isDead(const sockaddr_un& address)
{
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const bool refused =
        ::connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 && errno == ECONNREFUSED;
    ::close(probe);
    return refused;
}

// Removes a socket that a process of ours has left behind; why the name cannot be had.
QString freeName(const QString& path, const sockaddr_un& address)
{
    struct stat status
    {
    };
    if (::lstat(address.sun_path, &status) != 0)
        return QString(); // missing, or bind() will tell what is wrong
    if (!S_ISSOCK(status.st_mode))
        return QStringLiteral("%1 is no socket and is left alone; remove it or give another path with --control")
            .arg(path);
    if (status.st_uid != geteuid())
        return QStringLiteral("the control socket %1 belongs to somebody else; give another with --control").arg(path);
    if (!isDead(address))
        return QStringLiteral("another process listens on the control socket %1; give another with --control")
            .arg(path);
    if (::unlink(address.sun_path) != 0)
        return QStringLiteral("cannot replace the control socket %1: %2").arg(path, reason());
    return QString();
}

} // namespace

ControlServer::ControlServer(Control* control, std::function<void(const QString& line)> print)
    : m_control(control), m_print(std::move(print))
{
    m_peers.push_back({STDIN_FILENO, false, {}});
}

ControlServer::~ControlServer()
{
    for (const Peer& peer : m_peers) {
        if (peer.isSocket)
            ::close(peer.in);
    }
    if (m_listener >= 0) {
        ::close(m_listener);
        removeSocket();
    }
}

// Not when another has been put in its place.
void ControlServer::removeSocket()
{
    const QByteArray name = QFile::encodeName(m_path);
    struct stat status
    {
    };
    if (::lstat(name.constData(), &status) == 0 && S_ISSOCK(status.st_mode) && status.st_ino == m_inode)
        ::unlink(name.constData());
}

bool ControlServer::listen(const QString& path, QString* error)
{
    const QByteArray name = QFile::encodeName(path);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (name.size() >= static_cast<int>(sizeof(address.sun_path))) {
        *error = QStringLiteral("the path of the control socket is longer than %1 bytes: %2")
                     .arg(QString::number(sizeof(address.sun_path) - 1), path);
        return false;
    }
    memcpy(address.sun_path, name.constData(), static_cast<std::size_t>(name.size()));
    // When two processes find the same dead socket, the second must not remove the new one of the
    // first.
    m_lock = std::make_unique<QLockFile>(path + QStringLiteral(".lock"));
    m_lock->setStaleLockTime(0); // it is held as long as the program runs
    *error = freeName(path, address);
    if (error->isEmpty() && !m_lock->tryLock(0)) {
        *error = m_lock->error() == QLockFile::LockFailedError
                     ? QStringLiteral("another process listens on the control socket %1; give another with --control")
                           .arg(path)
                     : QStringLiteral("cannot listen on the control socket %1: %1.lock cannot be made").arg(path);
    } else if (error->isEmpty()) {
        *error = freeName(path, address);
    }
    if (error->isEmpty() && !bindAt(path, address))
        *error = QStringLiteral("cannot listen on the control socket %1: %2").arg(path, reason());
    return error->isEmpty();
}

// False with errno.
bool ControlServer::bindAt(const QString& path, const sockaddr_un& address)
{
    m_listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    struct stat status
    {
    };
    // The mode that the socket has before it is bound is that of its name: nobody else can
    // connect, not even for a moment.
    if (m_listener >= 0 && fchmod(m_listener, S_IRUSR | S_IWUSR) == 0 &&
        bind(m_listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
        ::lstat(address.sun_path, &status) == 0) {
        m_path = path;
        m_inode = status.st_ino;
        if (::listen(m_listener, 16) == 0)
            return true;
    }
    const int error = errno;
    if (m_listener >= 0)
        ::close(m_listener);
    m_listener = -1;
    removeSocket();
    errno = error;
    return false;
}

void ControlServer::run(int stopFd)
{
    while (!m_quit) {
        std::vector<pollfd> polled{{stopFd, POLLIN, 0}, {m_listener, POLLIN, 0}};
        for (const Peer& peer : m_peers)
            polled.push_back({peer.in, POLLIN, 0});
        if (poll(polled.data(), polled.size(), -1) < 0)
            continue; // EINTR
        if (polled[0].revents != 0)
            return;
        for (std::size_t i = 0; i < m_peers.size() && !m_quit; ++i) {
            Peer& peer = m_peers[i];
            if (polled[i + 2].revents != 0 && !readFrom(peer)) {
                if (peer.isSocket)
                    ::close(peer.in);
                peer.in = -1;
            }
        }
        m_peers.erase(std::remove_if(m_peers.begin(), m_peers.end(), [](const Peer& peer) { return peer.in < 0; }),
                      m_peers.end());
        if (polled[1].revents != 0)
            accept();
    }
}

void ControlServer::accept()
{
    const int peer = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (peer >= 0)
        m_peers.push_back({peer, true, {}});
}

bool ControlServer::readFrom(Peer& peer)
{
    char buffer[longestCommandBytes];
    const ssize_t got = ::read(peer.in, buffer, sizeof(buffer));
    if (got < 0 && errno == EINTR)
        return true;
    if (got > 0)
        peer.pending.append(buffer, static_cast<int>(got));
    else if (!peer.pending.isEmpty())
        peer.pending.append('\n'); // a last command without its end
    executeCommands(peer);
    return got > 0 && peer.pending.size() < longestCommandBytes;
}

void ControlServer::executeCommands(Peer& peer)
{
    for (int end = 0; !m_quit && (end = peer.pending.indexOf('\n')) >= 0;) {
        const QString command = QString::fromUtf8(peer.pending.left(end)).trimmed();
        peer.pending.remove(0, end + 1);
        const ControlReply reply = m_control->execute(command);
        answer(peer, reply.text);
        m_quit = reply.quit;
    }
}

void ControlServer::answer(const Peer& peer, const QStringList& text)
{
    if (!peer.isSocket) {
        for (const QString& line : text)
            m_print(line);
        return;
    }
    QByteArray bytes;
    for (const QString& line : text)
        bytes += line.toUtf8() + '\n';
    // Answers are far smaller than a socket's buffer; a peer that takes none loses them.
    const ssize_t sent =
        ::send(peer.in, bytes.constData(), static_cast<std::size_t>(bytes.size()), MSG_NOSIGNAL | MSG_DONTWAIT);
    Q_UNUSED(sent)
}

} // namespace sim
