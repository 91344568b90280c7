// Blocked socket calls cancelled from other threads, over and over, for a
// few seconds (ZELPH_STRESS_SECONDS, 3 s by default): readers of silent
// peers, an accepting listener, and a pair that exchanges data while both of
// its ends are cancelled at random moments. Every call must end with its
// result or with EIOCancelled, never hang, never fail otherwise.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <latch>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/base/CException.h"
#include "common/system/CUnixSocket.h"

namespace zelph {
namespace {

using Clock = std::chrono::steady_clock;

double StressSeconds() {
  const char* value = std::getenv("ZELPH_STRESS_SECONDS");
  return value != nullptr ? std::atof(value) : 3.0;
}

// A short temporary directory (socket paths must stay under 108 bytes).
class CSocketDir {
 public:
  CSocketDir() : path_("/tmp/zelph-stress-XXXXXX") {
    if (mkdtemp(path_.data()) == nullptr) path_.clear();
  }
  ~CSocketDir() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  CSocketDir(const CSocketDir&) = delete;
  CSocketDir& operator=(const CSocketDir&) = delete;
  std::string File(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// How the calls of one worker ended.
struct CTally {
  std::atomic<long> completed{0};
  std::atomic<long> cancelled{0};
  std::atomic<long> failed{0};
  std::string firstFailure;  // written by the worker only, read after join
};

// How the workers stop: each leaves its loop once `stop` is set, says so on
// `left`, and keeps its thread until `release`, so that a Cancel still under
// way never signals a thread that has ended.
struct CStopping {
  std::atomic<bool> stop{false};
  std::latch left;
  std::shared_future<void> release;
};

// Runs `call` in a loop until told to stop, counting how each call ends; a
// cancelled stream is reset for the next call.
void Work(CStream& stream, const std::function<void()>& call, CStopping& stopping, CTally& tally) {
  while (!stopping.stop.load()) {
    try {
      call();
      ++tally.completed;
    } catch (const EIOCancelled&) {
      ++tally.cancelled;
      stream.ResetCancel();
    } catch (const CException& error) {
      if (tally.failed++ == 0) tally.firstFailure = std::string(error.GetEvent().GetText().View());
    }
  }
  stopping.left.count_down();
  stopping.release.wait();
}

TEST(SocketCancelStressTest, BlockedCallsEndInTimeWhenCancelledFromOtherThreads) {
  CSocketDir dir;
  const std::string path = dir.File("sock");
  auto listener = CUnixSocket::Listen(path.c_str());

  // Two readers whose peers never write, and one pair that talks.
  constexpr int kSilent = 2;
  std::vector<std::unique_ptr<CUnixSocket>> clients;
  std::vector<std::unique_ptr<CLocalSocket>> served;
  for (int i = 0; i < kSilent + 1; ++i) {
    clients.push_back(CUnixSocket::Connect(path.c_str(), 0));
    served.push_back(listener->Accept());
  }
  CStream& talker = *clients[kSilent];
  CStream& listenerOfTalker = *served[kSilent];

  std::promise<void> release;
  CStopping stopping{{}, std::latch(kSilent + 3), release.get_future().share()};
  std::atomic<bool> stopCancelling{false};
  std::vector<CTally> tallies(kSilent + 3);
  std::vector<CStream*> cancelled;
  std::vector<std::thread> workers;
  for (int i = 0; i < kSilent; ++i) {
    CUnixSocket& reader = *clients[i];
    cancelled.push_back(&reader);
    workers.emplace_back([&, i] {
      std::uint8_t buffer[16];
      Work(
          reader, [&] { reader.Read(buffer, sizeof buffer); }, stopping, tallies[i]);
    });
  }
  cancelled.push_back(listener.get());
  workers.emplace_back([&] {
    Work(
        *listener, [&] { listener->Accept(); }, stopping, tallies[kSilent]);
  });
  cancelled.push_back(&talker);
  cancelled.push_back(&listenerOfTalker);
  workers.emplace_back([&] {
    const std::vector<std::uint8_t> message(4096, 0x42);
    Work(
        talker, [&] { talker.Write(message.data(), message.size()); }, stopping,
        tallies[kSilent + 1]);
  });
  workers.emplace_back([&] {
    std::vector<std::uint8_t> buffer(4096);
    Work(
        listenerOfTalker, [&] { listenerOfTalker.Read(buffer.data(), buffer.size()); }, stopping,
        tallies[kSilent + 2]);
  });

  // Cancel again and again: a signal that arrives just before a call blocks
  // is lost, and the next Cancel reaches it.
  std::vector<std::thread> cancellers;
  for (int c = 0; c < 2; ++c) {
    cancellers.emplace_back([&, c] {
      for (std::size_t k = static_cast<std::size_t>(c); !stopCancelling.load(); ++k) {
        cancelled[k % cancelled.size()]->Cancel();
        std::this_thread::sleep_for(std::chrono::microseconds(200));
      }
    });
  }

  std::this_thread::sleep_for(std::chrono::duration<double>(StressSeconds()));
  // The workers leave their loops while the cancellers still run, so none
  // stays blocked; their threads end only once the cancellers have stopped.
  stopping.stop = true;
  stopping.left.wait();
  stopCancelling = true;
  for (std::thread& canceller : cancellers) canceller.join();
  release.set_value();
  for (std::thread& worker : workers) worker.join();

  const char* names[] = {"silent reader 1", "silent reader 2", "listener", "writer", "reader"};
  long cancellations = 0;
  long completions = 0;
  for (const CTally& tally : tallies) {
    cancellations += tally.cancelled.load();
    completions += tally.completed.load();
  }
  std::printf("%ld calls cancelled, %ld completed\n", cancellations, completions);
  for (std::size_t i = 0; i < tallies.size(); ++i) {
    EXPECT_EQ(tallies[i].failed.load(), 0)
        << names[i] << " failed otherwise than by cancellation: " << tallies[i].firstFailure;
    EXPECT_GT(tallies[i].cancelled.load(), 0) << names[i] << " was never cancelled";
  }
  EXPECT_EQ(tallies[0].completed.load() + tallies[1].completed.load(), 0)
      << "a read of a silent peer returned";
}

}  // namespace
}  // namespace zelph
