// A loopback TCP port that nothing listens on at the moment of asking, for
// tests that start a server of their own (0 when none could be had).
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>

namespace korux_test {

inline uint16_t freeLoopbackPort()
{
    const int probe = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (probe < 0 || ::bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0
        || ::getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        address.sin_port = 0;
    if (probe >= 0)
        ::close(probe);
    return ntohs(address.sin_port);
}

} // namespace korux_test
