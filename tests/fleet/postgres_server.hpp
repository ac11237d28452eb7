// postgres_server.hpp: the private PostgreSQL server of a test program, started when it is first asked for. It ends
// when the program does, in whichever way.
#pragma once

#include <string>

class PostgresServer {
 public:
  static PostgresServer &instance();

  // Of a new database of that name. Empty: PostgreSQL is not installed.
  std::string database(const std::string &name);

  void stop();
  void start();

 private:
  PostgresServer();
  std::string line();
  void tell(const std::string &what);

  int in_ = -1, out_ = -1;
  std::string folder_;
};
