#include "sim/controlserver.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <QFile>

namespace sim {

namespace {

constexpr int longestLine = 4096;

// Whether somebody listens on the socket.
bool isAlive(const sockaddr_un& address)
{
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool alive = ::connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    ::close(probe);
    return alive;
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
        QFile::remove(m_path);
    }
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
    if (isAlive(address)) {
        *error = QStringLiteral("another process listens on the control socket %1").arg(path);
        return false;
    }
    QFile::remove(path);
    m_listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (m_listener < 0 || bind(m_listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        ::listen(m_listener, 16) != 0) {
        *error = QStringLiteral("cannot listen on the control socket %1: %2")
                     .arg(path, QString::fromLocal8Bit(strerror(errno)));
        if (m_listener >= 0)
            ::close(m_listener);
        m_listener = -1;
        return false;
    }
    m_path = path;
    return true;
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
    char buffer[longestLine];
    const ssize_t got = ::read(peer.in, buffer, sizeof(buffer));
    if (got < 0 && errno == EINTR)
        return true;
    if (got > 0)
        peer.pending.append(buffer, static_cast<int>(got));
    else if (!peer.pending.isEmpty())
        peer.pending.append('\n'); // a last line without its end
    executeLines(peer);
    return got > 0 && peer.pending.size() < longestLine;
}

void ControlServer::executeLines(Peer& peer)
{
    int end;
    while (!m_quit && (end = peer.pending.indexOf('\n')) >= 0) {
        const QString line = QString::fromUtf8(peer.pending.left(end)).trimmed();
        peer.pending.remove(0, end + 1);
        const ControlReply reply = m_control->execute(line);
        answer(peer, reply.lines);
        m_quit = reply.quit;
    }
}

void ControlServer::answer(const Peer& peer, const QStringList& lines)
{
    if (!peer.isSocket) {
        for (const QString& line : lines)
            m_print(line);
        return;
    }
    QByteArray text;
    for (const QString& line : lines)
        text += line.toUtf8() + '\n';
    // Answers are far smaller than a socket's buffer; a peer that takes none loses them.
    const ssize_t sent =
        ::send(peer.in, text.constData(), static_cast<std::size_t>(text.size()), MSG_NOSIGNAL | MSG_DONTWAIT);
    Q_UNUSED(sent)
}

} // namespace sim
