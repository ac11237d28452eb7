// main.cpp: runs the rows and prints them as one table.
//
// A loop of our own instead of a framework's: what is wanted is the ratio of two sides that ran right after each other,
// many times, and the median of those ratios. On a machine whose speed changes under other tenants that is steadier
// than the ratio of two medians, and frameworks report their benchmarks one by one.
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <regex>
#include <string>
#include <vector>

#include "bench.hpp"

namespace {

struct NamedSide {
  std::string name;
  Side side;
  double items;
};

struct Case {
  std::string name;
  std::vector<NamedSide> sides;  // kep, plain, peers
  Aims aims;
  Clock clock;
};

std::vector<Case> &cases() {
  static std::vector<Case> all;
  return all;
}

// ---- figures: per item, one a repeat

using Figures = std::vector<double>;

double quantile(Figures figures, double part) {
  std::sort(figures.begin(), figures.end());
  return figures[static_cast<size_t>(part * static_cast<double>(figures.size() - 1) + 0.5)];
}

double median(const Figures &figures) { return quantile(figures, 0.5); }

double timeOf(const NamedSide &side, Clock clock, int64_t passes) {
  Run run(passes, clock);
  side.side(run);
  return run.elapsed();
}

// The passes that take about so many nanoseconds.
int64_t passesFor(const NamedSide &side, Clock clock, double span) {
  int64_t passes = 1;
  double elapsed;
  while ((elapsed = timeOf(side, clock, passes)) < span / 10) passes *= 5;
  return std::max<int64_t>(1, static_cast<int64_t>(span / elapsed * static_cast<double>(passes)));
}

std::vector<Figures> measureTimes(const Case &row, int repeats, double span) {
  std::vector<int64_t> passes;
  for (const NamedSide &side : row.sides) passes.push_back(side.side ? passesFor(side, row.clock, span) : 0);
  std::vector<Figures> all(row.sides.size());
  for (int repeat = 0; repeat < repeats; ++repeat) {
    for (size_t i = 0; i < all.size(); ++i) {
      if (passes[i] == 0) continue;
      const double items = row.sides[i].items * static_cast<double>(passes[i]);
      all[i].push_back(timeOf(row.sides[i], row.clock, passes[i]) / items);
    }
  }
  return all;
}

// ---- instructions: each side in a process of its own, which counts what runs inside of Run's loop

// A few items more or less must not show, nor a long pass run for minutes.
int64_t countedPasses(double items) {
  return std::max<int64_t>(items < 100000 ? 8 : 1, static_cast<int64_t>(20000 / items));
}

double countInstructions(size_t row, size_t side) {
  char program[4096] = {};
  if (readlink("/proc/self/exe", program, sizeof program - 1) < 0) std::abort();
  const std::string command =
      "LD_BIND_NOW=1 valgrind --tool=callgrind --callgrind-out-file=/dev/null --toggle-collect='*repeatPass*' '" +
      std::string(program) + "' --run " + std::to_string(row) + " " + std::to_string(side) + " 2>&1";
  FILE *output = popen(command.c_str(), "r");
  double count = -1;
  for (char line[512]; output && std::fgets(line, sizeof line, output);) {
    const char *found = std::strstr(line, "Collected : ");
    if (found) count = std::strtod(found + std::strlen("Collected : "), nullptr);
  }
  if (!output || pclose(output) != 0 || count < 0) {
    std::fprintf(stderr, "kep-bench: cannot run: %s\n", command.c_str());
    std::exit(1);
  }
  return count;
}

std::vector<Figures> measureInstructions(const Case &row, size_t index) {
  std::vector<Figures> all(row.sides.size());
  for (size_t i = 0; i < all.size(); ++i) {
    if (!row.sides[i].side) continue;
    const double items = row.sides[i].items;
    all[i].push_back(countInstructions(index, i) / (items * static_cast<double>(countedPasses(items))));
  }
  return all;
}

// ---- the report

int missed;

std::string number(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.*f", value < 9.995 ? 2 : value < 99.95 ? 1 : 0, value);
  return text;
}

std::string figure(const Figures &figures) { return figures.empty() ? "" : number(median(figures)); }

std::string ratio(const Figures &ours, const Figures &theirs, double aim) {
  if (theirs.empty()) return "";
  Figures ratios;
  for (size_t i = 0; i < ours.size(); ++i) ratios.push_back(ours[i] / theirs[i]);
  const double middle = median(ratios);
  std::string text = number(middle);
  if (quantile(ratios, 0.75) - quantile(ratios, 0.25) > middle / 10) text += " ?";
  if (aim > 0 && std::round(middle * 100) > std::round(aim * 100)) {
    text += " !";
    ++missed;
  }
  return text;
}

void printLine(const char *name, const char *kep, const char *plain, const char *peer, const char *plainRatio,
               const char *plainAim, const char *peerRatio, const char *peerAim) {
  std::printf("| %-58s | %8s | %8s | %-28s | %9s | %5s | %9s | %5s |\n", name, kep, plain, peer, plainRatio, plainAim,
              peerRatio, peerAim);
  std::fflush(stdout);
}

std::string aimText(double aim) { return aim > 0 ? number(aim) : ""; }

void printRow(const Case &row, const std::vector<Figures> &all) {
  size_t best = 0;
  for (size_t i = 2; i < all.size(); ++i) {
    if (best == 0 || median(all[i]) < median(all[best])) best = i;
  }
  const Figures none;
  const Figures &peer = best ? all[best] : none;
  const std::string peerText = best ? row.sides[best].name + ": " + figure(peer) : "";
  printLine(row.name.c_str(), figure(all[0]).c_str(), figure(all[1]).c_str(), peerText.c_str(),
            ratio(all[0], all[1], row.aims.plain).c_str(), aimText(row.aims.plain).c_str(),
            ratio(all[0], peer, row.aims.peer).c_str(), aimText(row.aims.peer).c_str());
}

void report(const std::regex &filter, bool quick, bool instructions) {
  printLine("case", "kep", "plain", "best peer", "kep/plain", "aim", "kep/peer", "aim");
  printLine("---", "--:", "--:", "---", "--:", "--:", "--:", "--:");
  const int repeats = quick ? 7 : 25;
  for (size_t i = 0; i < cases().size(); ++i) {
    const Case &row = cases()[i];
    if (!std::regex_search(row.name, filter) || (instructions && row.clock == Clock::wall)) continue;
    printRow(row, instructions ? measureInstructions(row, i) : measureTimes(row, repeats, quick ? 2e6 : 8e6));
  }
  if (instructions) {
    std::printf("\nInstructions an item: steadier than time, and for ratios near 1 as good.");
  } else {
    std::printf("\nNanoseconds an item, medians of %d.", repeats);
  }
  std::printf(" ?: the middle half of the ratios spreads over more than a tenth. !: above its aim (%d).\n", missed);
}

int usage() {
  std::fputs("usage: kep-bench [--quick] [--instructions] [FILTER]\nFILTER: an expression, found in a case's name\n",
             stderr);
  return 2;
}

}  // namespace

double Run::now() const {
  timespec time;
  clock_gettime(clock_ == Clock::cpu ? CLOCK_THREAD_CPUTIME_ID : CLOCK_MONOTONIC, &time);
  return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

Row::Row(const char *name, double items, Side kep, Side plain, Aims aims, Clock clock) : index(cases().size()) {
  cases().push_back({name, {{"kep", std::move(kep), items}, {"plain", std::move(plain), items}}, aims, clock});
}

Peer::Peer(const Row &row, const char *name, Side side, double items) {
  std::vector<NamedSide> &sides = cases()[row.index].sides;
  sides.push_back({name, std::move(side), items > 0 ? items : sides[0].items});
}

int main(int argc, char **argv) {
  // Memory given back stays with the process: which side of a row met fresh pages would depend on what ran before, and
  // a page may cost more than all that is measured.
  mallopt(M_MMAP_THRESHOLD, 32 << 20);
  mallopt(M_TRIM_THRESHOLD, INT_MAX);
  if (argc == 4 && !std::strcmp(argv[1], "--run")) {  // what countInstructions runs
    const NamedSide &side = cases().at(std::stoul(argv[2])).sides.at(std::stoul(argv[3]));
    timeOf(side, Clock::cpu, countedPasses(side.items));
    return 0;
  }
  bool quick = false;
  bool instructions = false;
  std::string filter;
  for (int i = 1; i < argc; ++i) {
    if (!std::strcmp(argv[i], "--quick")) {
      quick = true;
    } else if (!std::strcmp(argv[i], "--instructions")) {
      instructions = true;
    } else if (argv[i][0] == '-' || !filter.empty()) {
      return usage();
    } else {
      filter = argv[i];
    }
  }
  try {
    report(std::regex(filter, std::regex::icase), quick, instructions);
  } catch (const std::regex_error &) {
    return usage();
  }
}
