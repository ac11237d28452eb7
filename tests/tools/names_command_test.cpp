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
  ASSERT_EQ(run("--lua " KEP_GOLDEN "/compiled.toml"), 0);
  EXPECT_EQ(out().substr(out().find("return {")), contentOf(KEP_GOLDEN "/compiled"));
}

TEST_F(NamesCommand, DraftsWhatABoardSends) {
  BoardPeer peer;
  Command command("--draft 127.0.0.1 --type 2 --port " + peer.port());
  for (Strings messages : {board::collection(), board::selfTest()}) {
    messages[0].replace(8, 4, peer.beginVisit().substr(8));
    peer.sendRun(messages);
  }
  EXPECT_EQ(command.status(), 0) << err();
  EXPECT_EQ(out().substr(out().find("[board]")), contentOf(KEP_GOLDEN "/drafted.toml"));
  EXPECT_EQ(run("--check " KEP_GOLDEN "/drafted.toml"), 0) << err();
}

}  // namespace
