// The other end of a line of the socket plug-in, played by a script of bytes.
#pragma once

#include <QByteArray>
#include <QFile>
#include <QString>
#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace hosttest {

constexpr int scriptDeadlineMs = 30000;

inline sockaddr_un lineAddress(const QString& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    qstrncpy(address.sun_path, QFile::encodeName(path).constData(), sizeof address.sun_path);
    return address;
}

// Reads until the other end hangs up.
inline QByteArray readToEnd(int descriptor)
{
    QByteArray all;
    char bytes[4096];
    for (;;) {
        pollfd wait{descriptor, POLLIN, 0};
        if (poll(&wait, 1, scriptDeadlineMs) <= 0)
            return all;
        const ssize_t count = recv(descriptor, bytes, sizeof bytes, 0);
        if (count <= 0)
            return all;
        all.append(bytes, static_cast<int>(count));
    }
}

// Calls whoever listens there and says bytes; all that came until the other end hung up.
inline QByteArray answerTo(const QString& path, const QByteArray& bytes)
{
    const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = lineAddress(path);
    EXPECT_EQ(::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(::send(descriptor, bytes.constData(), static_cast<size_t>(bytes.size()), MSG_NOSIGNAL), bytes.size());
    const QByteArray answer = readToEnd(descriptor);
    close(descriptor);
    return answer;
}

// Says the same to each call until the caller hangs up.
class ScriptedAnswer
{
public:
    ScriptedAnswer(const QString& path, const QByteArray& bytes)
        : m_path(QFile::encodeName(path)), m_listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        const sockaddr_un address = lineAddress(path);
        unlink(m_path.constData());
        EXPECT_EQ(bind(m_listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(m_listener, 4), 0);
        m_thread = std::thread([this, bytes] { answerAll(bytes); });
    }
    ~ScriptedAnswer()
    {
        shutdown(m_listener, SHUT_RDWR); // accept() answers with an error
        m_thread.join();
        close(m_listener);
        unlink(m_path.constData());
    }
    ScriptedAnswer(const ScriptedAnswer&) = delete;
    ScriptedAnswer& operator=(const ScriptedAnswer&) = delete;

private:
    void answerAll(const QByteArray& bytes) const
    {
        for (;;) {
            const int descriptor = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (descriptor < 0)
                return;
            (void)::send(descriptor, bytes.constData(), static_cast<size_t>(bytes.size()), MSG_NOSIGNAL);
            readToEnd(descriptor);
            close(descriptor);
        }
    }

    const QByteArray m_path;
    const int m_listener;
    std::thread m_thread;
};

} // namespace hosttest
