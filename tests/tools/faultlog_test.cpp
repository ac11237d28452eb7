// faultlog_test.cpp: the command kep-faultlog.

#include "command.hpp"
#include "server/annotated.hpp"

namespace {

class FaultLogCommand : public CommandTest {
 protected:
  void SetUp() override {
    CommandTest::SetUp();
    const std::string file = annotatedBytes(KEP_PAGE);
    std::ofstream("whole", std::ios::binary) << file;
    std::ofstream("names") << R"(
[fault.net]
registers = { 0x10 = { name = "heat", unit = "K", scale = 0.1 }, 24 = { name = "mask" } }
values.7 = { name = "state", kind = "text" }
[fault."disk 0"]
counters.1 = { name = "errors" }
register_data.64 = { name = "head", format = "BB", fields = [{ name = "arm" }, { name = "lift", unit = "mm" }] }
)";
    std::ofstream("cut", std::ios::binary) << file.substr(0, 99);
    std::ofstream("damaged", std::ios::binary) << file.substr(0, 98) + std::string(2, '\0') + file.substr(98);
  }
};

TEST_F(FaultLogCommand, PrintsWhatIsWholeAndTellsWhatIsNot) {
  const auto golden = [](const std::string &format) { return contentOf(KEP_GOLDEN "/faults." + format); };
  const std::string damaged = "damaged at offset 98: a value without a head";
  const std::string begun = "4 log records, 0 values, 98 bytes";
  const std::string lines = golden("text").substr(0, golden("text").find("fault   type        id"));
  const struct {
    std::string arguments;
    int status;
    std::string out, err;
  } cases[] = {
      {"whole", 0, golden("text"), ""},
      {"- --format json <whole", 0, golden("json"), ""},
      {"whole --format csv", 0, golden("csv"), ""},
      {"whole --check", 0, "whole: 4 log records, 7 values, 224 bytes\n", ""},
      {"damaged", 1, lines + begun + ", not whole\n", damaged},
      {"damaged --check", 1, damaged + "; whole before it: " + begun + "\n", ""},
      {"cut --fault x", 1, begun + ", not whole\n", "cut short at offset 99: the file ends inside a record"},
      {"whole --csv-raw --format csv --type run", 0,
       "row,fault,type,time,id,kind,value,note\nline,disk 0,run,11/23 03:50:21,,,\"-5 \xC2\xB0\x43, "
       "\"\"cold\"\"\\n\",\n",
       ""},
      {"whole --fault net --type register", 0,
       "fault  type        id  value\nnet    register  0x10  0x00000020\nnet    register  0x18  0x0102030405060708\n"
       "4 log records, 7 values, 224 bytes\n",
       ""},
      {"whole --names names", 0, golden("named.text"), ""},
      {"whole --names names --format json", 0, golden("named.json"), ""},
      {"whole --names names --format csv", 0, golden("named.csv"), ""},
      {"whole --names none", 2, "", "cannot open none: No such file or directory"},
      {"whole >/dev/full", 4, "", "cannot write the output"},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(run(c.arguments), c.status) << c.arguments;
    EXPECT_EQ(out(), c.out);
    EXPECT_EQ(err(), c.err.empty() ? "" : "kep-faultlog: " + c.err + "\n");
  }
  expectWrongUsage(
      "",
      "|''|none|.|whole whole|whole --type log|whole --format xml|whole --check --fault x|whole --check --names names");
  expectHelpAsInManPage();
}

TEST_F(FaultLogCommand, PrintsWhatHasComeWhenASignalEndsIt) {
  expectOnSignal("", std::string(2, '\0'), SIGINT, "0 log records, 0 values, 2 bytes, not whole\n");
}

}  // namespace
