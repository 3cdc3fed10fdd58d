// A pty with modem lines, opened by a serial port or by plain system calls through the ptylines object.
#pragma once

#include "rig/deadline.h"
#include "rig/testroot.h"
#include "sim/pty/ptyendpoint.h"

#include <QFile>
#include <QSerialPort>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <unistd.h>

namespace simtest {

using rig::waitFor;
using sim::PtyEndpoint;

class PtyEndpointTest : public testing::Test
{
protected:
    bool open(QSerialPort& port, const PtyEndpoint& endpoint)
    {
        port.setPortName(endpoint.portPath());
        return port.open(QIODevice::ReadWrite);
    }

    // A slave opened with plain calls.
    int openFd(const PtyEndpoint& endpoint, int flags = O_NONBLOCK)
    {
        m_fd = ::open(QFile::encodeName(endpoint.portPath()).constData(), O_RDWR | O_NOCTTY | O_CLOEXEC | flags);
        return m_fd;
    }

    void TearDown() override
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }

    QString linkPath() const { return rig::installRoot() + QStringLiteral("/modem1"); }

    int m_fd = -1;
};

inline int outQueue(int fd)
{
    int bytes = -1;
    return ioctl(fd, TIOCOUTQ, &bytes) == 0 ? bytes : -1;
}

inline ssize_t writeFill(int fd, size_t count)
{
    const std::string fill(count, 'x');
    return ::write(fd, fill.data(), fill.size());
}

inline short pollFor(int fd, short events, int timeoutMs)
{
    pollfd entry{fd, events, 0};
    return poll(&entry, 1, timeoutMs) > 0 ? entry.revents : 0;
}

} // namespace simtest
