// 64 threads trace at once (Enter, String, Template, Leave, nested) for a few
// seconds through the shared library. The log must hold every line whole, each
// thread's lines in the order it wrote them at the right depth, and each
// thread's marker must stay its own.
//
// The tracing runs in a child process, so that the session is fresh and its
// footer is written at the child's exit. ZELPH_STRESS_SECONDS sets how long
// the threads run (3 s by default, less when every thread is done with its
// rounds before).
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zelph/trace.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace zelph {
namespace {

namespace fs = std::filesystem;

constexpr int kThreads = 64;
// Rounds per thread at most, which keeps the log below 50 MB.
constexpr int kMaxRounds = 1000;
constexpr char kMarkers[] = ".|@_~#/\\^-&*=%:ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";

double StressSeconds() {
  const char* value = std::getenv("ZELPH_STRESS_SECONDS");
  return value != nullptr ? std::atof(value) : 3.0;
}

// One round of worker `index`: nine log lines at depths 0 to 2.
void TraceRound(int index, int round) {
  const std::string name = "Worker" + std::to_string(index);
  const std::string label = "w" + std::to_string(index) + "r" + std::to_string(round);
  unsigned char secret[4] = {1, 2, 3, 4};
  CK_ATTRIBUTE attributes[] = {
      {CKA_LABEL, const_cast<char*>(label.data()), label.size()},
      {CKA_VALUE, secret, sizeof secret},
  };
  TraceEnter(name.c_str());
  TraceString("thread %d round %d", index, round);
  TraceTemplate(attributes, 2, CK_FALSE);
  TraceEnter("Inner");
  TraceString("inner %d/%d\nsecond line", index, round);
  TraceLeave("Inner");
  TraceLeave(name.c_str());
}

// The lines (depth, text) a worker writes in one round.
std::vector<std::pair<int, std::string>> ExpectedRound(int index, int round) {
  const std::string name = "Worker" + std::to_string(index);
  const std::string label = "w" + std::to_string(index) + "r" + std::to_string(round);
  return {
      {0, "Entering " + name + "."},
      {1, "thread " + std::to_string(index) + " round " + std::to_string(round)},
      {1, "\tCKA_LABEL\tLen=" + std::to_string(label.size()) + "\t\"" + label + "\""},
      {1, "\tCKA_VALUE\tLen=4\t<undisclosed, length is 4>"},
      {1, "Entering Inner."},
      {2, "inner " + std::to_string(index) + "/" + std::to_string(round)},
      {2, "second line"},
      {1, "Leaving Inner."},
      {0, "Leaving " + name + "."},
  };
}

// The child: all workers start together, trace until the time is up, and
// the number of rounds each one finished goes to `roundsFile`.
[[noreturn]] void RunWorkers(const std::string& roundsFile) {
  std::atomic<bool> go{false};
  std::atomic<bool> stop{false};
  std::atomic<int> done{0};
  std::vector<int> rounds(kThreads, 0);
  std::vector<std::thread> workers;
  for (int i = 0; i < kThreads; ++i) {
    workers.emplace_back([&, i] {
      while (!go.load()) std::this_thread::yield();
      int round = 0;
      for (; !stop.load() && round < kMaxRounds; ++round) TraceRound(i, round);
      rounds[i] = round;
      ++done;
    });
  }
  go = true;
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::duration<double>(StressSeconds());
  while (done.load() < kThreads && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  stop = true;
  for (std::thread& worker : workers) worker.join();
  std::ofstream out(roundsFile);
  for (const int count : rounds) out << count << "\n";
  out.close();
  std::exit(out ? 0 : 3);  // exit, not _exit: the footer is written at exit
}

// One trace line taken apart.
struct CLine {
  std::string threadId;
  char marker = 0;
  int depth = 0;
  std::string text;
};

// Splits a body line "MM-DD_hh:mm:ss:uuuuuu TTTTTTTTmm <indent>text". The
// marker is doubled, except that "%%" prints as one "%" in String and
// Template lines, whose prefix is part of the printf format.
bool ParseLine(const std::string& line, CLine& parsed) {
  if (line.size() < 22 + 8 + 2 || line[21] != ' ') return false;
  for (const std::size_t at : {2u, 5u, 8u, 11u, 14u}) {
    if (line[at] != (at == 2 ? '-' : at == 5 ? '_' : ':')) return false;
  }
  parsed.threadId = line.substr(22, 8);
  if (parsed.threadId.find_first_not_of("0123456789ABCDEF") != std::string::npos) return false;
  std::size_t at = 30;
  parsed.marker = line[at++];
  if (at < line.size() && line[at] == parsed.marker) {
    ++at;
  } else if (parsed.marker != '%') {
    return false;
  }
  if (at >= line.size() || line[at++] != ' ') return false;
  std::size_t spaces = 0;
  while (at + spaces < line.size() && line[at + spaces] == ' ') ++spaces;
  if (spaces % 4 != 0) return false;
  parsed.depth = static_cast<int>(spaces / 4);
  parsed.text = line.substr(at + spaces);
  return true;
}

std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

TEST(TraceStressTest, SixtyFourThreadsKeepEveryLineWholeAndInOrder) {
  const fs::path dir = fs::temp_directory_path() / ("zelph-stress-" + std::to_string(getpid()));
  fs::create_directories(dir / "logs");
  {
    std::ofstream config(dir / "zelph.conf");
    config << "Quillon {\n\tEnableTrace = 1\n\tTrace = " << (dir / "logs").string() << "\n}\n";
  }
  const std::string roundsFile = (dir / "rounds").string();

  const pid_t child = fork();
  ASSERT_GE(child, 0) << "fork failed";
  if (child == 0) {
    setenv("ZELPH_CONFFILE", (dir / "zelph.conf").c_str(), 1);
    RunWorkers(roundsFile);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
      << "the tracing process did not end normally, status " << status;

  std::vector<int> rounds;
  {
    std::ifstream in(roundsFile);
    for (int count; in >> count;) rounds.push_back(count);
  }
  ASSERT_EQ(rounds.size(), static_cast<std::size_t>(kThreads));
  long total = 0;
  for (const int count : rounds) total += count;
  std::printf("%ld rounds (%ld lines) from %d threads\n", total, total * 9, kThreads);

  std::vector<fs::path> logs;
  for (const auto& entry : fs::directory_iterator(dir / "logs")) logs.push_back(entry.path());
  ASSERT_EQ(logs.size(), 1u) << "one process, one log";
  std::ifstream in(logs.front(), std::ios::binary);
  const std::vector<std::string> lines =
      SplitLines(std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()));
  fs::remove_all(dir);

  // Header (nine lines), body, footer (blank, "# Ending log", rule).
  ASSERT_GE(lines.size(), 12u);
  EXPECT_EQ(lines[lines.size() - 2], "# Ending log") << "the footer closes the log";
  std::map<std::string, std::vector<CLine>> byThread;
  std::size_t torn = 0;
  for (std::size_t i = 9; i + 3 < lines.size(); ++i) {
    if (lines[i].empty()) continue;
    CLine parsed;
    if (!ParseLine(lines[i], parsed)) {
      if (++torn <= 5) ADD_FAILURE() << "line " << i + 1 << " is torn: \"" << lines[i] << "\"";
      continue;
    }
    if (parsed.text.starts_with("Leaving Worker")) {
      EXPECT_TRUE(i + 1 < lines.size() && lines[i + 1].empty())
          << "line " << i + 1 << ": the outermost Leave is followed by its blank line";
    }
    byThread[parsed.threadId].push_back(parsed);
  }
  ASSERT_EQ(torn, 0u) << "torn lines in the log";
  ASSERT_EQ(byThread.size(), static_cast<std::size_t>(kThreads)) << "every thread traced";

  std::set<char> markers;
  std::set<int> workers;
  for (const auto& [threadId, own] : byThread) {
    int index = -1;
    ASSERT_EQ(std::sscanf(own.front().text.c_str(), "Entering Worker%d.", &index), 1)
        << "thread " << threadId << " starts with: " << own.front().text;
    ASSERT_TRUE(index >= 0 && index < kThreads && workers.insert(index).second)
        << "worker " << index << " shows up under two thread ids";
    markers.insert(own.front().marker);
    const std::size_t expected = static_cast<std::size_t>(rounds[index]) * 9;
    EXPECT_EQ(own.size(), expected) << "worker " << index << " finished " << rounds[index]
                                    << " rounds; lines were lost or added";
    std::vector<std::pair<int, std::string>> round;
    for (std::size_t k = 0; k < own.size() && k < expected; ++k) {
      if (k % 9 == 0) round = ExpectedRound(index, static_cast<int>(k / 9));
      const auto& [depth, text] = round[k % 9];
      if (own[k].text != text || own[k].depth != depth || own[k].marker != own.front().marker) {
        ADD_FAILURE() << "worker " << index << ", its line " << k << ": expected depth " << depth
                      << " \"" << text << "\" with marker " << own.front().marker << ", got depth "
                      << own[k].depth << " \"" << own[k].text << "\" with marker " << own[k].marker;
        break;
      }
    }
  }
  EXPECT_EQ(markers, std::set<char>(kMarkers, kMarkers + kThreads))
      << "64 threads take the first 64 markers, one each";
}

}  // namespace
}  // namespace zelph
