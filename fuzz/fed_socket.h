// The fuzz targets' peer: a connected pair of local stream sockets whose
// peer end has already sent the input and shut its sending side, so that the
// code under test reads the input and then the close.
#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>

#include "lib/unique_fd.h"
#include "protocol/stream.h"

struct fed_socket {
  unique_fd reader;  // what the code under test reads (and writes its replies to)
  unique_fd peer;

  // False when the pair could not be made or the input not sent.
  bool feed(const std::uint8_t* data, std::size_t size) {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) return false;
    reader.reset(sv[0]);
    peer.reset(sv[1]);
    // Room for the whole input and for every reply, so neither side blocks.
    int big = 4 << 20;
    setsockopt(reader.get(), SOL_SOCKET, SO_SNDBUFFORCE, &big, sizeof big);
    setsockopt(peer.get(), SOL_SOCKET, SO_SNDBUFFORCE, &big, sizeof big);
    setsockopt(reader.get(), SOL_SOCKET, SO_RCVBUFFORCE, &big, sizeof big);
    if (!send_all(peer.get(), data, size)) return false;
    shutdown(peer.get(), SHUT_WR);
    rx_stream_reset();
    return true;
  }
};
