// names_command_test.cpp: the command kep-names, against a board that the test plays.

#include "command.hpp"
#include "server/board_stream.hpp"

namespace {

class NamesCommand : public CommandTest {
 protected:
  static void write(const std::string &path, const std::string &text) { std::ofstream(path) << text; }
};

TEST_F(NamesCommand, ChecksWhatItIsGiven) {
  std::filesystem::create_directory("sub");
  write("good.toml", "include = 'sub/more.toml'\n[item.a.keys]\n1 = { name = 'x' }");
  write("sub/more.toml", "[item.b.keys]\n1 = { name = 'x' }\n[fault.f]");
  write("bad.toml", "include = 'sub/bad.toml'");
  write("sub/bad.toml", "\ninclude = 'none.toml'");
  write("long.toml", std::string((1 << 20) + 1, '\n'));
  struct Case {
    std::string arguments;
    int status;
    std::string printed;
  };
  const std::vector<Case> cases = {
      {"--check good.toml", 0, "good: 2 items, 1 fault\n"},
      {"--check - <good.toml", 0, "good: 2 items, 1 fault\n"},
      {"--check bad.toml", 1,
       "kep-names: sub/bad.toml:2: include: sub/none.toml: cannot open sub/none.toml: No such file or directory\n"},
      {"--lua long.toml", 1, "kep-names: long.toml: more than 1 MiB\n"},
      {"--check none.toml", 2, "kep-names: cannot open none.toml: No such file or directory\n"},
      {"--draft 127.0.0.1 --port 9 --timeout 5", 3, "kep-names: 127.0.0.1 port 9: Connection refused\n"},
  };
  for (const Case &c : cases) {
    EXPECT_EQ(run(c.arguments), c.status) << c.arguments;
    EXPECT_EQ(out() + err(), c.printed);
  }
  expectWrongUsage("",
                   "|good.toml|--check ''|--check good.toml --lua good.toml|--check good.toml --port 1|"
                   "--draft 1.2.3|--draft a --type 3|--draft a --check good.toml");
  expectHelpAsInManPage();
}

TEST_F(NamesCommand, CompilesToLua) {
  write("names.toml", R"([board]
title = 'a"b\c'
zone = "-01:30"
[item.i]
reports = false
sections = { label = "port", names = { 2 = "two" } }
tests_in.2.7 = { name = "t", bits = { 3 = "three" } }
[item.i.keys]
-1 = { name = "x", scale = 1e-3, offset = -2.50, unit = "V" }
1 = { format = "h2sIT", fields = [{ name = "h" }, {}, { name = "I" }, { name = "T" }] }
)");
  ASSERT_EQ(run("--lua names.toml"), 0);
  EXPECT_EQ(out().substr(out().find("\nreturn")), R"(
return {
  version = 1,
  title = "a\034b\092c",
  zone = { { 0, -90 } },
  items = {
    ["i"] = {
      reports = false,
      label = "port",
      sections = { [2] = "two" },
      keys = {
        [-1] = { name = "x", unit = "V", kind = "gauge", scale = "0.001", offset = "-2.5", decimals = 3 },
        [1] = { size = 12, fields = {
          { start = 0, size = 2, type = "int", name = "h" },
          { start = 2, size = 2, type = "string" },
          { start = 4, size = 4, type = "uint", hex = true, name = "I" },
          { start = 8, size = 4, type = "time", name = "T" }, } },
      },
      keys_in = {
      },
      tests = {
      },
      tests_in = {
        [2] = {
          [7] = { name = "t", kind = "state", bits = { [3] = "three" } },
        },
      },
    },
  },
}
)");
}

TEST_F(NamesCommand, DraftsWhatABoardSends) {
  Peer requests;
  Command command("--draft 127.0.0.1 --type 2 --port " + requests.port());
  std::vector<int> connections;
  for (const Strings &messages : {board::collection(), board::selfTest()}) {
    const std::string request = requests.receive();
    ASSERT_EQ(request.size(), 16u);
    sockaddr_in server = requests.sender;
    std::copy_n(request.end() - 2, 2, reinterpret_cast<char *>(&server.sin_port));
    connections.push_back(socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_EQ(connect(connections.back(), reinterpret_cast<sockaddr *>(&server), sizeof server), 0);
    const std::string all = board::message(0, 0, "KB12").replace(8, 4, request.substr(8, 4)) +
                            board::joined(Strings(messages.begin() + 1, messages.end()));
    EXPECT_EQ(send(connections.back(), all.data(), all.size(), MSG_NOSIGNAL), static_cast<ssize_t>(all.size()));
    shutdown(connections.back(), SHUT_WR);
  }
  EXPECT_EQ(command.status(), 0) << err();
  for (const int connection : connections) close(connection);
  const std::string draft = out();
  EXPECT_EQ(draft.substr(draft.find("\n\n")), R"(

[board]
title = "Board 4b42"
# zone = "UTC"

# An item whose name is "" cannot be named here.

[item."café"]
# sections = { label = "section", named_by = 0 }  # sections 2 to 2 came

[item."café".keys]
0 = { name = "key 0" }  # 3 bytes: 00ff10; give it a format and fields

[item."café".keys_in.0]
1 = { name = "key 1" }  # -9223372036854775808

[item.disk.tests]
1 = { name = "test 1" }  # 1

[item.fan.tests]
1 = { name = "test 1" }  # 0

[item.log.keys]
4 = { name = "key 4", kind = "text" }  # "=first, of \x1b[2J\x7f\xc2\x9b\xe2\x80\xae\xc2\xad\xe1\x85\x9f\xef\xb8\x8f\xef\xbf\xb9\xf0\x9d\x85\xb3\xf3\xa0\x81\x81" ..
)");
  write("draft.toml", draft);
  EXPECT_EQ(run("--check draft.toml"), 0) << err();
}

}  // namespace
