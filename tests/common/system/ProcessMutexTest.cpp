#include "common/system/ProcessMutex.h"

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "SystemTestSupport.h"

namespace zelph {
namespace {

constexpr int kProject = 0x5A;

// A key file of the test's own; the semaphore keyed on it is removed at the
// end, whatever the outcome.
class ProcessMutexTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir_.Path().empty()) << "cannot create a temp dir";
    WriteFile(keyPath_, "key");
    key_ = ftok(keyPath_.c_str(), kProject);
    ASSERT_NE(key_, -1);
  }
  void TearDown() override { Remove(); }

  void Remove() const {
    const int id = semget(key_, 1, 0);
    if (id >= 0) semctl(id, 0, IPC_RMID);
  }
  int Value(int id) const { return semctl(id, 0, GETVAL); }
  // Waits until `count` processes wait to take the mutex.
  bool WaitForWaiters(int id, int count) const {
    for (int i = 0; i < 10000; ++i) {
      if (semctl(id, 0, GETNCNT) == count) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
  }

  CTempDir dir_;
  std::string keyPath_ = dir_.File("key");
  key_t key_ = -1;
};

TEST_F(ProcessMutexTest, SecondCreationOpensTheSameFreeSemaphore) {
  const int id = CreateProcessMutex(kProject, keyPath_.c_str());
  ASSERT_GE(id, 0);
  EXPECT_EQ(Value(id), 1) << "a new mutex must start free";
  EXPECT_EQ(CreateProcessMutex(kProject, keyPath_.c_str()), id);
  EXPECT_EQ(Value(id), 1) << "opening the mutex changed its value";
  AcquireProcessMutex(id);
  EXPECT_EQ(Value(id), 0);
  ReleaseProcessMutex(id);
  EXPECT_EQ(Value(id), 1);
}

TEST_F(ProcessMutexTest, TwoProcessesRacingCreateOneSemaphoreSetOnce) {
  for (int round = 0; round < 10; ++round) {
    CChildren children;
    int start[2];
    int result[2];
    ASSERT_EQ(pipe(start), 0);
    ASSERT_EQ(pipe(result), 0);
    pid_t racers[2];
    for (pid_t& racer : racers) {
      racer = children.Fork([&] {
        close(start[1]);
        char none;
        if (read(start[0], &none, 1) != 0) return 1;  // released by the close below
        const int id = CreateProcessMutex(kProject, keyPath_.c_str());
        return write(result[1], &id, sizeof id) == sizeof id ? 0 : 1;
      });
      ASSERT_GT(racer, 0);
    }
    close(start[0]);
    close(start[1]);
    close(result[1]);
    int ids[2] = {-1, -1};
    ASSERT_EQ(read(result[0], &ids[0], sizeof ids[0]), static_cast<ssize_t>(sizeof(int)));
    ASSERT_EQ(read(result[0], &ids[1], sizeof ids[1]), static_cast<ssize_t>(sizeof(int)));
    close(result[0]);
    for (const pid_t racer : racers) EXPECT_EQ(children.Wait(racer), 0);
    ASSERT_GE(ids[0], 0) << "round " << round;
    EXPECT_EQ(ids[0], ids[1]) << "round " << round << ": two semaphores for one key";
    EXPECT_EQ(Value(ids[0]), 1) << "round " << round << ": not exactly one creator set the value";
    Remove();
  }
}

TEST_F(ProcessMutexTest, HolderExcludesOtherProcessUntilRelease) {
  const int id = CreateProcessMutex(kProject, keyPath_.c_str());
  ASSERT_GE(id, 0);
  CChildren children;
  int log[2];
  int go[2];
  ASSERT_EQ(pipe(log), 0);
  ASSERT_EQ(pipe(go), 0);
  const pid_t holder = children.Fork([&] {
    close(go[1]);
    AcquireProcessMutex(id);
    const bool ok = write(log[1], "a", 1) == 1;
    char none;
    const bool released = read(go[0], &none, 1) == 0;
    const bool ok2 = write(log[1], "b", 1) == 1;
    ReleaseProcessMutex(id);
    return ok && released && ok2 ? 0 : 1;
  });
  ASSERT_GT(holder, 0);
  char first = 0;
  ASSERT_EQ(read(log[0], &first, 1), 1);
  const pid_t waiter = children.Fork([&] {
    close(go[1]);
    AcquireProcessMutex(id);
    const bool ok = write(log[1], "c", 1) == 1;
    ReleaseProcessMutex(id);
    return ok ? 0 : 1;
  });
  ASSERT_GT(waiter, 0);
  ASSERT_TRUE(WaitForWaiters(id, 1)) << "the second process never waited for the mutex";
  close(go[1]);  // lets the holder finish
  close(log[1]);
  EXPECT_EQ(children.Wait(holder), 0);
  EXPECT_EQ(children.Wait(waiter), 0);
  std::string order(1, first);
  char c = 0;
  while (read(log[0], &c, 1) == 1) order += c;
  EXPECT_EQ(order, "abc") << "the second process entered while the first held the mutex";
  EXPECT_EQ(Value(id), 1);
  close(log[0]);
  close(go[0]);
}

TEST_F(ProcessMutexTest, MutexComesBackWhenItsHolderDies) {
  const int id = CreateProcessMutex(kProject, keyPath_.c_str());
  ASSERT_GE(id, 0);
  CChildren children;
  const pid_t holder = children.Fork([id] {
    AcquireProcessMutex(id);
    return 0;  // ends without releasing
  });
  ASSERT_GT(holder, 0);
  EXPECT_EQ(children.Wait(holder), 0);
  EXPECT_EQ(Value(id), 1) << "the system did not undo the dead holder's hold";
}

TEST_F(ProcessMutexTest, UnreadySemaphoreIsOpenedAfterTenLooks) {
  // As if its creator died between creating and initialising it.
  const int created = semget(key_, 1, IPC_CREAT | IPC_EXCL | 0666);
  ASSERT_GE(created, 0);
  EXPECT_EQ(CreateProcessMutex(kProject, keyPath_.c_str()), created);
  EXPECT_EQ(Value(created), 0) << "the opener must not initialise the mutex";
}

TEST(ProcessMutex, MissingKeyFileOrNegativeIdentifierGivesInertMutex) {
  EXPECT_LT(CreateProcessMutex(kProject, "/nonexistent/zelph/key"), 0);
  AcquireProcessMutex(-1);  // must neither block nor fail
  ReleaseProcessMutex(-1);
}

}  // namespace
}  // namespace zelph
