// postgres_server.hpp: the private PostgreSQL server of a test program, started when it is first asked for. It ends
// when the program does, in whichever way.
#pragma once

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "kep-fleet/database.hpp"

class PostgresServer {
 public:
  static PostgresServer &instance() {
    static PostgresServer server;
    return server;
  }

  // Of a new database of that name. Empty: PostgreSQL is not installed.
  std::string database(const std::string &name) {
    if (folder_.empty()) return "";
    const std::string of = "?user=kep&host=" + folder_;
    kepfleet::openPostgres("postgresql:///postgres" + of, kepfleet::Access::kWrite, kepfleet::kStorePatience)
        ->script("CREATE DATABASE " + name);
    return "postgresql:///" + name + of;
  }

  void stop() { tell("stop\n"); }
  void start() { tell("start\n"); }

 private:
  // Only this program's end closes what the script reads from. The script is no child of this program: ctest kills one
  // that takes too long with all its children, and nobody would stop the server.
  PostgresServer() {
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) return;
    const pid_t starter = fork();
    if (starter == 0) {
      if (fork() != 0) _exit(0);
      dup2(in[0], 0);
      dup2(out[1], 1);
      execl(KEP_POSTGRES_SCRIPT, KEP_POSTGRES_SCRIPT, nullptr);
      _exit(1);
    }
    waitpid(starter, nullptr, 0);
    close(in[0]);
    close(out[1]);
    in_ = in[1];
    out_ = out[0];
    folder_ = line();
  }
  void tell(const std::string &what) {
    if (write(in_, what.data(), what.size()) > 0) line();
  }
  std::string line() const {
    std::string text;
    for (char c; read(out_, &c, 1) == 1 && c != '\n';) text += c;
    return text;
  }

  int in_ = -1, out_ = -1;
  std::string folder_;
};
