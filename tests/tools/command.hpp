// command.hpp: a command run by a test in a folder of its own, the peer that it talks to, its man page.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

using Strings = std::vector<std::string>;

constexpr int kPatienceMs = 200'000;  // a test that waits this long has failed

inline std::string contentOf(const std::string &path) {
  std::ostringstream content;
  content << std::ifstream(path, std::ios::binary).rdbuf();
  return content.str();
}

// One run of the program under test, its arguments as a shell takes them. It writes the files "out" and "err", unless
// the arguments redirect it, and ends with the object at the latest.
class Command {
 public:
  explicit Command(const std::string &arguments, const std::string &before = "") : child_(fork()) {
    if (child_ != 0) return;
    alarm(kPatienceMs / 1000);  // holds for the program, too
    execl("/bin/sh", "sh", "-c", (before + " exec '" KEP_PROGRAM "' >out 2>err " + arguments).c_str(), nullptr);
    _exit(127);
  }
  Command &operator=(Command &&) = delete;
  ~Command() {
    if (child_ > 0) kill(child_, SIGKILL);
    status();
  }

  // Sends the signal as soon as the program catches SIGTERM.
  void signal(int number) const {
    const std::regex caught("SigCgt:\\s*[0-9a-f]{12}[4-7c-f]");
    const std::string status = "/proc/" + std::to_string(child_) + "/status";
    for (int i = 0; i < kPatienceMs && !std::regex_search(contentOf(status), caught); ++i) usleep(1000);
    kill(child_, number);
  }

  // Waits for the end: the exit status, or -1 when a signal was the end.
  int status() {
    int status = -1;
    if (child_ > 0) waitpid(std::exchange(child_, 0), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t child_;
};

// A FIFO that is read, but not now: whoever opens it for writing finds it open, and full.
class FullFifo {
 public:
  explicit FullFifo(const std::string &path) {
    EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
    fd_ = open(path.c_str(), O_RDWR | O_NONBLOCK);
    const std::string page(4096, 'x');
    while (write(fd_, page.data(), page.size()) > 0) continue;
  }
  FullFifo &operator=(FullFifo &&) = delete;
  ~FullFifo() { close(fd_); }

 private:
  int fd_;
};

// A UDP socket of the test's own on loopback.
struct Peer {
  Peer() {
    socklen_t size = sizeof address;
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&address), size), 0);
    getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size);
    const timeval patience = {kPatienceMs / 1000, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  }
  Peer &operator=(Peer &&) = delete;
  ~Peer() { close(fd); }

  std::string port() const { return std::to_string(ntohs(address.sin_port)); }

  void send(const std::string &bytes, const sockaddr_in &to) const {
    EXPECT_EQ(sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr *>(&to), sizeof to),
              static_cast<ssize_t>(bytes.size()));
  }

  std::string receive() {
    char bytes[2000];
    socklen_t size = sizeof sender;
    const ssize_t received = recvfrom(fd, bytes, sizeof bytes, 0, reinterpret_cast<sockaddr *>(&sender), &size);
    return {bytes, static_cast<size_t>(std::max<ssize_t>(received, 0))};
  }

  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in address{};
  sockaddr_in sender{};  // of the last datagram received
};

// A board's side of a run: it is asked, and connects back.
struct BoardPeer : Peer {
  ~BoardPeer() { hangUp(); }

  // Takes the request; returns it without the port.
  std::string takeRequest() {
    const std::string request = receive();
    server = sender;
    if (request.size() == 16) std::copy_n(request.end() - 2, 2, reinterpret_cast<char *>(&server.sin_port));
    return request.substr(0, 12);
  }

  // Connects to where the last request asks to be called back.
  void connectFrom(const std::string &from) {
    sockaddr_in own{};
    own.sin_family = AF_INET;
    own.sin_addr.s_addr = inet_addr(from.c_str());
    connection = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(bind(connection, reinterpret_cast<sockaddr *>(&own), sizeof own), 0);
    EXPECT_EQ(connect(connection, reinterpret_cast<sockaddr *>(&server), sizeof server), 0);
  }

  // Takes the request and connects.
  std::string beginVisit() {
    const std::string request = takeRequest();
    connectFrom("127.0.0.1");
    return request;
  }

  void sendBytes(const std::string &bytes) const {
    EXPECT_EQ(::send(connection, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
  }

  // As a board does it: one receive call, whatever it yields. Returns its size; an overlong one shows as 17.
  ssize_t takeAcknowledgement() const {
    char bytes[17];
    return recv(connection, bytes, sizeof bytes, 0);
  }

  void sendAcknowledged(const Strings &messages) const {
    for (const std::string &message : messages) {
      sendBytes(message);
      EXPECT_EQ(takeAcknowledgement(), 1);
    }
  }

  void sendRun(const Strings &messages) {
    sendAcknowledged(messages);
    hangUp();
  }

  void hangUp() { close(std::exchange(connection, -1)); }

  sockaddr_in server{};
  int connection = -1;
};

// Works in a folder of its own.
class CommandTest : public ::testing::Test {
 protected:
  void SetUp() override {
    folder_ = ::testing::TempDir() + "kep-XXXXXX";
    ASSERT_NE(mkdtemp(folder_.data()), nullptr);
    std::filesystem::current_path(folder_);
  }
  void TearDown() override {
    std::filesystem::current_path("/");
    std::filesystem::remove_all(folder_);
  }

  static int run(const std::string &arguments, const std::string &before = "") {
    return Command(arguments, before).status();
  }
  static std::string out() { return contentOf("out"); }
  static std::string err() { return contentOf("err"); }

  // Waits until a file holds what the pattern says; returns what its first group matches.
  static std::string waitFor(const std::string &path, const std::string &pattern) {
    for (int i = 0; i < kPatienceMs; ++i, usleep(1000)) {
      const std::set<std::string> found = namesIn(contentOf(path), pattern);
      if (!found.empty()) return *found.begin();
    }
    return "";
  }

  // The cases stand one behind the other, with a bar between two.
  static void expectWrongUsage(const std::string &start, const std::string &cases) {
    std::istringstream in(cases);
    for (std::string arguments; std::getline(in, arguments, '|');) {
      EXPECT_EQ(run(start + arguments), 2) << arguments;
      expectComplaint();
      EXPECT_EQ(out(), "");
    }
  }

  // That there is one, and who complains.
  static void expectComplaint(const std::string &path = "err") {
    const std::string name = std::filesystem::path(KEP_PROGRAM).filename();
    EXPECT_TRUE(std::regex_match(contentOf(path), std::regex("(" + name + ": .+\n)+"))) << contentOf(path);
  }

  // Reads from a FIFO that has these bytes and no end, until a signal comes.
  static void expectOnSignal(const std::string &arguments, const std::string &bytes, int signal,
                             const std::string &printed) {
    EXPECT_EQ(mkfifo("fifo", 0600), 0);
    Command waiting(arguments + " fifo");
    const int fd = open("fifo", O_WRONLY);
    EXPECT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    for (int unread = 1; unread > 0; usleep(1000)) ioctl(fd, FIONREAD, &unread);
    waiting.signal(signal);
    EXPECT_EQ(waiting.status(), 4);
    EXPECT_EQ(out(), printed);
    EXPECT_NE(err().find(": interrupted\n"), std::string::npos) << err();
    close(fd);
  }

  static void expectHelpAsInManPage() {
    ASSERT_EQ(run("--help"), 0);
    const std::string page = contentOf(KEP_MAN_PAGE);
    EXPECT_EQ(namesIn(out(), "[ ,]--([a-z-]+)"), namesIn(page, "Fl (?:h , )?-([a-z-]+)"));
    EXPECT_EQ(namesIn(out(), "\n  ([0-9])  "), namesIn(page, "\n\\.It ([0-9])\n"));
    EXPECT_EQ(run("--help >/dev/full"), 4) << "broken off";
    ASSERT_EQ(run("--version"), 0);
    EXPECT_EQ(out(), std::filesystem::path(KEP_PROGRAM).filename().string() + " " KEP_VERSION "\n");
  }

 private:
  static std::set<std::string> namesIn(const std::string &text, const std::string &pattern) {
    const std::regex regex(pattern);
    const std::sregex_token_iterator found(text.begin(), text.end(), regex, 1);
    return {found, std::sregex_token_iterator()};
  }

  std::string folder_;
};
