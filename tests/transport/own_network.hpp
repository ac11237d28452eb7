// own_network.hpp: a network for one test: whatever it sends, and to whom, stays inside.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <net/route.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

inline sockaddr_in socketAddress(const std::string &text, int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  inet_pton(AF_INET, text.c_str(), &address.sin_addr);
  return address;
}

// "<address>:<port>" of an address.
inline std::string asText(const sockaddr_in &address) {
  char text[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
  return text + (":" + std::to_string(ntohs(address.sin_port)));
}

// A bound datagram socket; port 0 takes a free one.
inline int openBound(const std::string &address, int port) {
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  const sockaddr_in bound = socketAddress(address, port);
  EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&bound), sizeof bound), 0) << address << ":" << port;
  return fd;
}

// Moves this process into an empty network of one loopback interface, which takes every address 10.x.x.x for its own
// and carries broadcasts back. Without root a user namespace is tried, which single-threaded processes may make.
inline bool enterOwnNetwork() {
  if (unshare(CLONE_NEWNET) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) return false;
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  char loopback[] = "lo";
  ifreq request{};
  std::strcpy(request.ifr_name, loopback);
  const sockaddr_in board = socketAddress("10.0.0.1", 0);
  std::memcpy(&request.ifr_addr, &board, sizeof board);
  bool made = ioctl(fd, SIOCSIFADDR, &request) == 0;
  request.ifr_flags = IFF_UP;
  made = made && ioctl(fd, SIOCSIFFLAGS, &request) == 0;
  rtentry everywhere{};
  everywhere.rt_dst.sa_family = everywhere.rt_genmask.sa_family = everywhere.rt_gateway.sa_family = AF_INET;
  everywhere.rt_dev = loopback;
  everywhere.rt_flags = RTF_UP;
  made = made && ioctl(fd, SIOCADDRT, &everywhere) == 0;
  close(fd);
  return made;
}

constexpr int kNoNetwork = 77;  // the status of a process that could not make its own

// Leaves the system one port, for every socket of this network that is not bound to another.
inline void leaveOnePort(int port) {
  std::ofstream range("/proc/sys/net/ipv4/ip_local_port_range");
  if (!(range << port << ' ' << port << std::flush)) std::_Exit(kNoNetwork);
}

// Runs a test's body in a process of its own, with a network of its own; its last statement.
inline void inOwnNetwork(void (*body)()) {
  std::fflush(nullptr);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (!enterOwnNetwork()) std::_Exit(kNoNetwork);
    body();
    std::exit(testing::Test::HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  if (WIFEXITED(status) && WEXITSTATUS(status) == kNoNetwork) {
    GTEST_SKIP() << "a network of its own needs root, or leave to make user namespaces";
  }
  EXPECT_EQ(status, 0) << "in the process of this test's own";
}
