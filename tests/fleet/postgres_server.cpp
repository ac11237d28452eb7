#include "postgres_server.hpp"

#include <fcntl.h>
#include <unistd.h>

#include "fleet/database.hpp"

PostgresServer &PostgresServer::instance() {
  static PostgresServer server;
  return server;
}

// Only this program's end closes what the script reads from.
PostgresServer::PostgresServer() {
  int in[2], out[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) return;
  if (fork() == 0) {
    dup2(in[0], 0);
    dup2(out[1], 1);
    execl(KEP_POSTGRES_SCRIPT, KEP_POSTGRES_SCRIPT, nullptr);
    _exit(1);
  }
  close(in[0]);
  close(out[1]);
  in_ = in[1];
  out_ = out[0];
  folder_ = line();
}

std::string PostgresServer::database(const std::string &name) {
  if (folder_.empty()) return "";
  const std::string of = "?user=kep&host=" + folder_;
  kepfleet::openPostgres("postgresql:///postgres" + of, kepfleet::Access::kWrite)->script("CREATE DATABASE " + name);
  return "postgresql:///" + name + of;
}

void PostgresServer::stop() { tell("stop"); }
void PostgresServer::start() { tell("start"); }

void PostgresServer::tell(const std::string &what) {
  const std::string text = what + "\n";
  if (write(in_, text.data(), text.size()) > 0) line();
}

std::string PostgresServer::line() {
  std::string text;
  for (char c; read(out_, &c, 1) == 1 && c != '\n';) text += c;
  return text;
}
